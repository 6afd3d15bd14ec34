// files.h - the one rule for every file korvanel-sim reads or writes, in
// either mode and in the waveform library alike.
//
// Reading: a regular file (or standard input, "-", where a caller allows it),
// never more than a stated number of bytes; a directory, a device such as
// /dev/zero, a pipe or a file over the limit is refused with its path and
// the reason, before anything is read from it.
//
// Writing, for every file any mode writes (waveforms, charts, saved
// memories, reports): checked before the run (the folder exists, nothing is
// there or the user said to replace it, it is no file the run reads and no
// other output of the run), then streamed into a new, uniquely named
// temporary file beside the target and moved into place only when the run
// succeeds. A file is the run's whole output or what it was before, and a
// run stopped by SIGINT, SIGTERM or SIGHUP leaves no temporary file behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvanel::files {

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

// Whether two names reach one file: the same path once the folders are
// resolved (p.svg and ./p.svg), or, for files that exist, the same device
// and inode (a symbolic or a hard link to it).
bool same_file(const std::string& a, const std::string& b);

// Why `path` cannot be written under `rule`, as "PATH: reason", or nothing.
// Besides `rule.keep`, every file read_input() has read is kept: a run never
// writes over its own input, whatever the user said.
std::optional<std::string> check_output(const std::string& path, const OutputRule& rule);
// A new run in the same process: what earlier runs read may be written.
void forget_inputs();

// One output as it is written. open() checks the target again and creates
// the temporary file (O_EXCL, mode 0644 less the umask, in the target's
// folder, never through a symbolic link); write() streams into it; commit()
// moves it into place: over the target when the rule allows replacing it (a
// symbolic link there is replaced, not followed), otherwise only while
// nothing is there, so that a file that appeared meanwhile (another run
// writing the same path) is refused, not replaced. Without commit(), on a
// failure and on SIGINT, SIGTERM or SIGHUP the temporary file is removed.
class OutputFile {
public:
    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    std::optional<std::string> open(const std::string& path, const OutputRule& rule);
    bool is_open() const { return fd_ >= 0; }
    // A failure is kept for commit() to report.
    void write(std::string_view bytes);
    // "PATH: reason" when the file could not be written or placed; the
    // temporary file is gone either way.
    std::optional<std::string> commit();
    void discard();
    const std::string& path() const { return path_; }

private:
    std::string path_, base_, name_, hint_, error_;
    int dir_ = -1, fd_ = -1, slot_ = -1;
    bool replace_ = false;
};

// An OutputFile holding `bytes`, committed.
std::optional<std::string> write_output(const std::string& path, const std::string& bytes, const OutputRule& rule);

// `name` as a file beside `folder`: absolute names and an empty folder leave
// it as it is.
std::string beside(const std::string& folder, const std::string& name);

}  // namespace korvanel::files
