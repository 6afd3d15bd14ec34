#!/usr/bin/env bash
# Photographs a waveform open in PulseView with sigrok's I2C decoder on SCL
# and SDA, on a virtual screen (Xvfb), for the README.
#
#   scripts/pulseview_picture.sh RUN.vcd OUT.png [SECONDS_PER_PIXEL]
#
# The picture starts at the beginning of the run.
#
# Needs Debian's pulseview, sigrok-cli, xvfb and imagemagick.
set -euo pipefail
vcd=$1 png=$2 scale=${3:-1.3e-7}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# PulseView keeps decoder set-ups with sessions of its own format, so the
# VCD's bus and power lines become one.
sigrok-cli -i "$vcd" -I vcd -C scl,sda,d0 -o "$work/run.sr"
cat > "$work/run.pvs" <<PVS
[General]
decode_signals=1
generated_signals=0
views=1

[decode_signal0]
name=I2C
decoders=1
decoder0\\id=i2c
decoder0\\visible=true
decoder0\\options=0
channels=2
channel0\\name=SCL
channel0\\initial_pin_state=2
channel0\\assigned_signal_name=scl
channel1\\name=SDA
channel1\\initial_pin_state=2
channel1\\assigned_signal_name=sda

[view0]
scale=$scale
offset=0
PVS
display=:$((90 + RANDOM % 100))
Xvfb "$display" -screen 0 1280x340x24 >/dev/null 2>&1 &
xvfb=$!
sleep 1
DISPLAY=$display pulseview -c -i "$work/run.sr" -s "$work/run.pvs" -geometry 1280x340+0+0 >/dev/null 2>&1 &
viewer=$!
# The decoder runs in the background; give it time to draw.
sleep 5
DISPLAY=$display import -window root -crop 1280x330+0+30 +repage -colors 64 "$png"
kill "$viewer" "$xvfb" 2>/dev/null || true
wait 2>/dev/null || true
