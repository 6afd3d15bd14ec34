// capture.h - a logic-analyzer capture of the I2C bus as the transfers
// sigrok's I2C decoder reads in it, to compare with a run's bus.
//
// A capture is one of:
//   - the decoder's annotation text, as `sigrok-cli ... -A i2c > FILE` saves
//     it (with or without --protocol-decoder-samplenum);
//   - a VCD or a sigrok session file (.sr), which korvanel-sim decodes by
//     running sigrok-cli (Debian package sigrok-cli) on it.
//
//   std::string error;
//   auto capture = read_capture("move.vcd", {.scl = "D0", .sda = "D1"}, error);
//   if (!capture) ... exit status 2 with `error`
//   if (auto diff = compare_wire(bench, capture->transfers)) ... exit status 1 with *diff
#pragma once

#include "vcd.h"

#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::wire {

struct CaptureChannels {
    std::string scl = "scl";
    std::string sda = "sda";
};

struct Capture {
    std::vector<WireTransfer> transfers;
    // Each transfer's first and last sample (its START and STOP), when the
    // capture carries sample numbers; samplerate in Hz when known.
    std::vector<std::pair<int64_t, int64_t>> samples;
    double samplerate = 0;
};

// The sigrok-cli program: $KORVANEL_SIGROK_CLI, else sigrok-cli on the PATH.
std::string sigrok_cli();

// Nothing, with `error` naming the file and what is wrong, for input that is
// missing, not a regular file, over kCaptureFileLimit (64 MiB, files.h), not
// a capture, truncated, lacks the channels, or holds no transfer at all.
std::optional<Capture> read_capture(const std::string& path, const CaptureChannels& channels, std::string& error);
// The I2C decoder's annotation lines; `name` is for messages. A saved text
// without a single annotation is no capture; sigrok-cli's own output of a
// `decoded` file may be a bus that stayed idle.
std::optional<Capture> parse_annotations(std::istream& in, const std::string& name, std::string& error,
                                         bool decoded = false);

// The first difference between the bench's transfers and a capture's, both
// sides shown: "transfer 3 differs:\n  bench:   S 0x50 W ...\n  capture: ...";
// or a different count. Nothing when they are equal.
std::optional<std::string> compare_wire(const std::vector<WireTransfer>& bench,
                                        const std::vector<WireTransfer>& capture);

}  // namespace korvanel::wire
