// files.cpp - reading and writing files under one rule.
#include "files.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace korvanel::files {

namespace {

std::string kind_of(const struct stat& st)
{
    return S_ISDIR(st.st_mode)    ? "it is a directory"
           : S_ISCHR(st.st_mode)  ? "it is a character device, not a regular file"
           : S_ISBLK(st.st_mode)  ? "it is a block device, not a regular file"
           : S_ISFIFO(st.st_mode) ? "it is a pipe, not a regular file"
           : S_ISSOCK(st.st_mode) ? "it is a socket, not a regular file"
                                  : "it is not a regular file";
}

std::string too_big(const std::string& what, size_t limit)
{
    return "more than the " + std::to_string(limit) + " bytes " + what + " may hold";
}

// Reads at most limit + 1 bytes, so that a file that grows past the limit
// while it is read is still refused.
bool read_bounded(int fd, size_t limit, std::vector<uint8_t>& out)
{
    out.clear();
    uint8_t chunk[65536];
    while (out.size() <= limit) {
        ssize_t n = read(fd, chunk, std::min(sizeof chunk, limit + 1 - out.size()));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        out.insert(out.end(), chunk, chunk + n);
    }
    return true;
}

std::string folder_of(const std::string& path)
{
    auto slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string base_of(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// What tells two names of one file apart or not: the path with its folder
// resolved, and the file's device and inode when it exists.
struct Identity {
    std::string resolved;
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    bool operator==(const Identity& o) const
    {
        return resolved == o.resolved || (exists && o.exists && dev == o.dev && ino == o.ino);
    }
};

Identity identify(const std::string& path)
{
    Identity id;
    char folder[PATH_MAX];
    id.resolved = realpath(folder_of(path).c_str(), folder) != nullptr ? std::string(folder) + "/" + base_of(path) : path;
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        id = {id.resolved, true, st.st_dev, st.st_ino};
    }
    return id;
}

// Every file read_input() has read in this process, identified again at
// each check: an inode is reused once its file is gone.
std::mutex read_files_lock;
std::vector<std::string> read_files;

// ---- Temporary files the signal handler removes ---------------------------------
//
// A fixed table, so that the handler only reads memory and calls unlinkat():
// a slot is taken, its name filled in, and only then its folder published.

struct LiveTemporary {
    std::atomic<bool> taken{false};
    std::atomic<int> dir{-1};
    char name[NAME_MAX + 1] = {};
};
constexpr int kLiveSlots = 64;
LiveTemporary live[kLiveSlots];
constexpr int kCleanedSignals[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void remove_temporaries(int signal)
{
    int saved = errno;
    for (auto& slot : live) {
        int dir = slot.dir.load();
        if (dir >= 0) {
            unlinkat(dir, slot.name, 0);
        }
    }
    errno = saved;
    // The default action (SA_RESETHAND restored it) ends the process as the
    // signal would have, once this handler returns.
    raise(signal);
}

// Signals the user left at their default action: a signal ignored on
// purpose (nohup) stays ignored.
void install_cleanup()
{
    static std::once_flag once;
    std::call_once(once, [] {
        for (int signal : kCleanedSignals) {
            struct sigaction old {};
            if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
                struct sigaction now {};
                now.sa_handler = remove_temporaries;
                sigemptyset(&now.sa_mask);
                now.sa_flags = SA_RESETHAND;
                sigaction(signal, &now, nullptr);
            }
        }
    });
}

// The cleaned signals held off while a temporary file and its slot change
// together, so that the handler never sees one without the other.
class SignalsHeld {
public:
    SignalsHeld()
    {
        sigset_t set;
        sigemptyset(&set);
        for (int signal : kCleanedSignals) {
            sigaddset(&set, signal);
        }
        pthread_sigmask(SIG_BLOCK, &set, &old_);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }

private:
    sigset_t old_;
};

// ".NAME.PID-COUNT-NOISE.tmp", shortened to fit a file name: unlikely to be
// taken, and never taken over when it is (O_EXCL).
std::string temporary_name(const std::string& base)
{
    static std::atomic<unsigned> count{0};
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char suffix[64];
    std::snprintf(suffix, sizeof suffix, ".%d-%u-%06lx.tmp", int(getpid()), count++,
                  (unsigned long)(now.tv_nsec ^ now.tv_sec) & 0xFFFFFF);
    return "." + base.substr(0, NAME_MAX - 1 - std::strlen(suffix)) + suffix;
}

}  // namespace

std::optional<std::vector<uint8_t>> read_input(const std::string& path, const std::string& what, size_t limit,
                                               bool stdin_allowed, std::string& error)
{
    std::vector<uint8_t> data;
    if (path.empty()) {
        error = "an empty file name";
        return std::nullopt;
    }
    if (path == "-" && stdin_allowed) {
        if (!read_bounded(STDIN_FILENO, limit, data)) {
            error = "standard input: " + std::string(strerror(errno));
            return std::nullopt;
        }
        if (data.size() > limit) {
            error = "standard input: " + too_big(what, limit);
            return std::nullopt;
        }
        return data;
    }
    // Opened without blocking, so that a FIFO with no writer is refused
    // rather than waited on.
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = path + ": " + (errno == ENOENT ? "no such file" : strerror(errno));
        return std::nullopt;
    }
    struct stat st;
    std::string problem;
    if (fstat(fd, &st) != 0) {
        problem = strerror(errno);
    } else if (!S_ISREG(st.st_mode)) {
        problem = kind_of(st);
    } else if (uint64_t(st.st_size) > limit) {
        problem = "it holds " + std::to_string(st.st_size) + " bytes, " + too_big(what, limit);
    } else if (!read_bounded(fd, limit, data)) {
        problem = strerror(errno);
    } else if (data.size() > limit) {
        problem = "it grew past " + std::to_string(limit) + " bytes while it was read";
    }
    if (problem.empty()) {
        std::lock_guard<std::mutex> hold(read_files_lock);
        read_files.push_back(path);
    }
    close(fd);
    if (!problem.empty()) {
        error = path + ": " + problem;
        return std::nullopt;
    }
    return data;
}

bool same_file(const std::string& a, const std::string& b) { return identify(a) == identify(b); }

std::optional<std::string> check_output(const std::string& path, const OutputRule& rule)
{
    if (path.empty()) {
        return std::string("an empty file name");
    }
    if (base_of(path).empty() || base_of(path) == "." || base_of(path) == "..") {
        return path + ": it names a folder, not a file";
    }
    auto kept = [&](const std::string& input) {
        return path + ": it is " + (input == path ? "a file" : input + ", a file") +
               " this run reads; a run never writes over it";
    };
    Identity target = identify(path);
    std::vector<std::string> inputs = rule.keep;
    {
        std::lock_guard<std::mutex> hold(read_files_lock);
        inputs.insert(inputs.end(), read_files.begin(), read_files.end());
    }
    for (auto& input : inputs) {
        if (!input.empty() && input != "-" && target == identify(input)) {
            return kept(input);
        }
    }
    // A symbolic link at the target is itself replaced, never followed.
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) {
            return path + ": " + kind_of(st);
        }
        if (!rule.overwrite) {
            return path + ": the file exists; " + rule.overwrite_hint + " replaces it";
        }
    }
    std::string folder = folder_of(path);
    if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return path + ": the folder " + folder + " does not exist";
    }
    if (access(folder.c_str(), W_OK) != 0) {
        return path + ": the folder " + folder + " is not writable";
    }
    return std::nullopt;
}

void forget_inputs()
{
    std::lock_guard<std::mutex> hold(read_files_lock);
    read_files.clear();
}

OutputFile::~OutputFile() { discard(); }

std::optional<std::string> OutputFile::open(const std::string& path, const OutputRule& rule)
{
    discard();
    if (auto problem = check_output(path, rule)) {
        return problem;
    }
    install_cleanup();
    path_ = path;
    base_ = base_of(path);
    replace_ = rule.overwrite;
    hint_ = rule.overwrite_hint;
    error_.clear();
    std::string folder = folder_of(path);
    dir_ = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_ < 0) {
        return path + ": cannot open the folder " + folder + ": " + strerror(errno);
    }
    SignalsHeld held;
    for (int i = 0; i < kLiveSlots && slot_ < 0; i++) {
        if (!live[i].taken.exchange(true)) {
            slot_ = i;
        }
    }
    if (slot_ < 0) {
        error_ = "more files are being written at once than the tool can clean up after";
    }
    // O_EXCL: a name that exists, whatever it is (a user's file, a link), is
    // left alone and another name tried.
    for (int attempt = 0; slot_ >= 0 && fd_ < 0 && attempt < 100; attempt++) {
        name_ = temporary_name(base_);
        fd_ = openat(dir_, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd_ < 0 && errno != EEXIST) {
            break;
        }
    }
    if (fd_ < 0) {
        std::string reason = error_.empty() ? strerror(errno) : error_;
        name_.clear();
        discard();
        return path + ": cannot create a temporary file beside it: " + reason;
    }
    std::memcpy(live[slot_].name, name_.c_str(), name_.size() + 1);
    live[slot_].dir.store(dir_);
    return std::nullopt;
}

void OutputFile::write(std::string_view bytes)
{
    while (fd_ >= 0 && error_.empty() && !bytes.empty()) {
        ssize_t n = ::write(fd_, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error_ = n < 0 ? strerror(errno) : "nothing more could be written";
            break;
        }
        bytes.remove_prefix(size_t(n));
    }
}

std::optional<std::string> OutputFile::commit()
{
    if (fd_ < 0) {
        return path_ + ": no file is open";
    }
    if (error_.empty() && fsync(fd_) != 0) {
        error_ = strerror(errno);
    }
    if (close(fd_) != 0 && error_.empty()) {
        error_ = strerror(errno);
    }
    fd_ = -1;
    if (error_.empty() && replace_) {
        if (renameat(dir_, name_.c_str(), dir_, base_.c_str()) == 0) {
            name_.clear();  // placed: nothing of that name is left to remove
        } else {
            error_ = strerror(errno);
        }
    }
    // Without leave to replace, a hard link is made: it fails when a file
    // appeared at the target meanwhile, where a rename would replace it.
    if (error_.empty() && !replace_) {
        int made = linkat(dir_, name_.c_str(), dir_, base_.c_str(), 0);
        if (made != 0 && errno != EEXIST) {
            // A file system without hard links: a rename that never replaces.
            made = renameat2(dir_, name_.c_str(), dir_, base_.c_str(), RENAME_NOREPLACE);
            if (made == 0) {
                name_.clear();
            }
        }
        if (made != 0) {
            error_ = errno == EEXIST ? "a file appeared there while the run wrote it; " + hint_ + " replaces it"
                                     : std::string(strerror(errno));
        }
    }
    auto problem = error_.empty() ? std::nullopt : std::optional<std::string>(path_ + ": " + error_);
    discard();
    return problem;
}

void OutputFile::discard()
{
    SignalsHeld held;
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    if (slot_ >= 0) {
        live[slot_].dir.store(-1);
        live[slot_].taken.store(false);
        slot_ = -1;
    }
    // After a committed rename the name is gone; after a link it is the
    // second name of the placed file.
    if (dir_ >= 0 && !name_.empty()) {
        unlinkat(dir_, name_.c_str(), 0);
    }
    if (dir_ >= 0) {
        close(dir_);
        dir_ = -1;
    }
    name_.clear();
}

std::optional<std::string> write_output(const std::string& path, const std::string& bytes, const OutputRule& rule)
{
    OutputFile file;
    if (auto problem = file.open(path, rule)) {
        return problem;
    }
    file.write(bytes);
    return file.commit();
}

std::string beside(const std::string& folder, const std::string& name)
{
    return name.empty() || name[0] == '/' || folder.empty() ? name : folder + "/" + name;
}

}  // namespace korvanel::files
