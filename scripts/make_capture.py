#!/usr/bin/env python3
"""Makes an I2C capture as a logic analyzer records one from a real module.

No hardware is at hand, so this stands in for it: a list of transfers is put
on a modelled bus the way a controller and a part would drive it (a clock a
little slower than nominal, an unequal duty cycle, edge jitter, the part
stretching the clock), and the lines are sampled at the analyzer's fixed
rate. It shares no code with korvanel-sim's waveform writer, so a capture
compared with a bench run checks one against the other.

  scripts/make_capture.py [options] TRANSFERS OUT.sr|OUT.vcd

TRANSFERS holds one transfer a line ('#' starts a comment):

  0x0C W 03 01            a write: address, direction, bytes
  0x0C R F1               a read: the bytes the part returns
  0x50 W 00 20 nack       the part does not acknowledge its address
  0x50 W 00 20 55 nack@2  ... or the data byte at that index (from 0)
  idle 5000               the bus idles this many microseconds

OUT.sr is a sigrok session file (what PulseView saves), OUT.vcd a Value
Change Dump with one time stamp per sample that changed.
"""

import argparse
import random
import sys
import zipfile


def parse_transactions(path):
    items = []
    with open(path) as f:
        for number, line in enumerate(f, 1):
            words = line.split("#", 1)[0].split()
            if not words:
                continue
            try:
                if words[0] == "idle":
                    items.append(("idle", float(words[1]) * 1e-6))
                    continue
                address = int(words[0], 0)
                read = {"W": False, "R": True}[words[1].upper()]
                data, nack = [], None
                for w in words[2:]:
                    if w == "nack":
                        nack = -1
                    elif w.startswith("nack@"):
                        nack = int(w[5:])
                    else:
                        data.append(int(w, 16))
                items.append(("transfer", address, read, data, nack))
            except (ValueError, KeyError, IndexError):
                sys.exit(f"{path}:{number}: cannot read '{line.strip()}'")
    return items


class Bus:
    """SCL and SDA as edges in time (seconds), driven clock by clock."""

    def __init__(self, args):
        self.rng = random.Random(args.seed)
        self.period = 1.0 / (args.clock * args.slow)
        self.duty = args.duty  # the low part of each clock
        self.jitter = args.jitter
        self.stretch = args.stretch * 1e-6
        self.t = 20e-6
        self.scl = self.sda = 1
        self.edges = [(0.0, 1, 1)]

    def wobble(self, seconds):
        return seconds * (1 + self.rng.uniform(-self.jitter, self.jitter))

    def set(self, scl=None, sda=None):
        self.scl = self.scl if scl is None else scl
        self.sda = self.sda if sda is None else sda
        self.edges.append((self.t, self.scl, self.sda))

    def wait(self, seconds):
        self.t += self.wobble(seconds)

    def start(self):
        if self.scl == 0:  # a repeated START: release SDA, then SCL
            self.wait(self.period * 0.2)
            self.set(sda=1)
            self.wait(self.period * 0.3)
            self.set(scl=1)
        self.wait(self.period * 0.4)
        self.set(sda=0)
        self.wait(self.period * 0.45)
        self.set(scl=0)

    def bit(self, value, stretch=0.0):
        low = self.period * self.duty
        self.wait(low * 0.15)
        self.set(sda=value)
        self.wait(low * 0.85)
        self.t += stretch
        self.set(scl=1)
        self.wait(self.period * (1 - self.duty))
        self.set(scl=0)

    def byte(self, value, ack, stretch=0.0):
        for b in range(7, -1, -1):
            self.bit((value >> b) & 1, stretch if b == 7 else 0.0)
        self.bit(0 if ack else 1)

    def stop(self):
        self.wait(self.period * self.duty * 0.15)
        self.set(sda=0)
        self.wait(self.period * self.duty * 0.85)
        self.set(scl=1)
        self.wait(self.period * 0.4)
        self.set(sda=1)
        self.wait(self.period * 1.5)

    def transfer(self, address, read, data, nack):
        self.start()
        self.byte(address << 1 | read, nack != -1)
        if nack == -1:
            self.stop()
            return
        for i, value in enumerate(data):
            last = i == len(data) - 1
            if read:
                # The part stretches the clock before each byte it returns;
                # the controller acknowledges all but the last.
                self.byte(value, not last, self.stretch)
            else:
                self.byte(value, nack != i, self.stretch if i == 0 else 0.0)
                if nack == i:
                    break
        self.stop()


def samples(edges, rate):
    """Yields (first sample, level byte) for each run of equal samples."""
    for (t, scl, sda) in edges:
        yield int(round(t * rate)), scl | sda << 1


def write_sr(path, edges, rate, names, end):
    total = int(end * rate) + 1
    data = bytearray(total)
    runs = list(samples(edges, rate))
    for i, (first, level) in enumerate(runs):
        last = runs[i + 1][0] if i + 1 < len(runs) else total
        data[first:last] = bytes([level]) * max(0, last - first)
    metadata = (
        "[global]\nsigrok version=0.5.2\n\n[device 1]\ncapturefile=logic-1\ntotal probes=2\n"
        f"samplerate={rate // 1000000} MHz\ntotal analog=0\nprobe1={names[0]}\nprobe2={names[1]}\nunitsize=1\n"
    )
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as z:
        z.writestr("version", "2")
        z.writestr("metadata", metadata)
        z.writestr("logic-1-1", bytes(data))


def write_vcd(path, edges, rate, names, end):
    # The analyzer's sample period in nanoseconds: 8 MHz is 125 ns.
    step = 1e9 / rate
    with open(path, "w") as f:
        f.write("$date capture $end\n$timescale 1 ns $end\n$scope module logic $end\n")
        f.write(f"$var wire 1 ! {names[0]} $end\n$var wire 1 \" {names[1]} $end\n$upscope $end\n$enddefinitions $end\n")
        last = None
        for first, level in samples(edges, rate):
            if level == last:
                continue
            f.write(f"#{int(round(first * step))}\n")
            if last is None or (level & 1) != (last & 1):
                f.write(f"{level & 1}!\n")
            if last is None or (level & 2) != (last & 2):
                f.write(f"{level >> 1}\"\n")
            last = level
        f.write(f"#{int(round(end * rate * step))}\n")


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("transactions")
    p.add_argument("out")
    p.add_argument("--rate", type=int, default=24000000, help="samples a second (8 or 24 MHz analyzers)")
    p.add_argument("--clock", type=float, default=400000, help="the nominal SCL clock, Hz")
    p.add_argument("--slow", type=float, default=0.92, help="the real clock as a share of the nominal one")
    p.add_argument("--duty", type=float, default=0.62, help="the low share of each clock")
    p.add_argument("--jitter", type=float, default=0.04, help="each interval varies by up to this share")
    p.add_argument("--stretch", type=float, default=2.0, help="microseconds the part holds SCL low before a byte")
    p.add_argument("--seed", type=int, default=1)
    p.add_argument("--channels", default="D0,D1", help="the analyzer's names for SCL and SDA")
    args = p.parse_args()
    bus = Bus(args)
    for item in parse_transactions(args.transactions):
        if item[0] == "idle":
            bus.t += item[1]
        else:
            bus.transfer(*item[1:])
    end = bus.t + 20e-6
    names = args.channels.split(",")
    (write_sr if args.out.endswith(".sr") else write_vcd)(args.out, bus.edges, args.rate, names, end)


if __name__ == "__main__":
    main()
