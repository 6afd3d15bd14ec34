// files.cpp - reading and writing files under one rule.
#include "files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvanel::tool {

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

bool same_file(const std::string& a, const std::string& b)
{
    struct stat sa, sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

std::string folder_of(const std::string& path)
{
    auto slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
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
    close(fd);
    if (!problem.empty()) {
        error = path + ": " + problem;
        return std::nullopt;
    }
    return data;
}

std::optional<std::string> check_output(const std::string& path, const OutputRule& rule)
{
    if (path.empty()) {
        return std::string("an empty file name");
    }
    for (auto& kept : rule.keep) {
        if (same_file(path, kept)) {
            return path + ": it is " + (kept == path ? "a file" : kept + ", a file") +
                   " this run reads; a run never writes over it";
        }
    }
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        if (!S_ISREG(st.st_mode)) {
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

std::optional<std::string> write_output(const std::string& path, const std::string& bytes, const OutputRule& rule)
{
    if (auto problem = check_output(path, rule)) {
        return problem;
    }
    std::string slash_name = path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
    std::string temp = folder_of(path) + "/." + slash_name + ".XXXXXX";
    int fd = mkstemp(temp.data());
    if (fd < 0) {
        return path + ": cannot create a temporary file beside it: " + strerror(errno);
    }
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += size_t(n);
    }
    std::string problem = done < bytes.size() ? strerror(errno) : "";
    // mkstemp makes the file for its owner only; the output gets the usual mode.
    mode_t mask = umask(0);
    umask(mask);
    if (problem.empty() && (fchmod(fd, 0666 & ~mask) != 0 || fsync(fd) != 0)) {
        problem = strerror(errno);
    }
    if (close(fd) != 0 && problem.empty()) {
        problem = strerror(errno);
    }
    if (problem.empty() && rename(temp.c_str(), path.c_str()) != 0) {
        problem = strerror(errno);
    }
    if (!problem.empty()) {
        unlink(temp.c_str());
        return path + ": " + problem;
    }
    return std::nullopt;
}

std::string beside(const std::string& folder, const std::string& name)
{
    return name.empty() || name[0] == '/' || folder.empty() ? name : folder + "/" + name;
}

}  // namespace korvanel::tool
