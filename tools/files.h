// files.h - the one rule for every file korvanel-sim reads or writes.
//
// Reading: a regular file (or standard input, "-", where a caller allows it),
// never more than a stated number of bytes; a directory, a device such as
// /dev/zero, a pipe or a file over the limit is refused with its path and
// the reason, before anything is read from it.
//
// Writing: checked before the run (the folder exists, nothing is there or
// the user said to replace it, and it is not a file the run reads, such as
// the scenario), then written to a temporary file beside the target and
// renamed over it, so that a file is either the run's whole output or what
// it was before.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

// The most the tool reads of each kind of file. A memory image is also held
// to the memory's own size.
constexpr size_t kScenarioFileLimit = size_t(16) << 20;
constexpr size_t kWriteDataFileLimit = size_t(1) << 20;
constexpr size_t kCaptureFileLimit = size_t(64) << 20;  // a logic analyzer's recording

// The whole file, or nothing with `error` set to "PATH: reason". `what`
// says in the limit's message what the file is ("a scenario", "a memory
// image of this memory").
std::optional<std::vector<uint8_t>> read_input(const std::string& path, const std::string& what, size_t limit,
                                               bool stdin_allowed, std::string& error);

struct OutputRule {
    bool overwrite = false;          // the user said an existing file may be replaced
    std::string overwrite_hint;      // how the user says so: "--force", "\"overwrite\": true"
    std::vector<std::string> keep;   // files the run reads: never written, whatever the user said
};

// Why `path` cannot be written under `rule`, as "PATH: reason", or nothing.
std::optional<std::string> check_output(const std::string& path, const OutputRule& rule);
// Checks again, then writes through a temporary file renamed over `path`.
std::optional<std::string> write_output(const std::string& path, const std::string& bytes, const OutputRule& rule);

// `name` as a file beside `folder`: absolute names and an empty folder leave
// it as it is.
std::string beside(const std::string& folder, const std::string& name);

}  // namespace korvanel::tool
