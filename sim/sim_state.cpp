// State directory and file store of the simulated switch SDK.
//
// Every state file is small text (or, for INI images, a few kilobytes of
// bytes).  Whole-file replacements go through NAME.tmp and rename(2), so that
// tests and tools in other processes never read half a file; the call log and
// INI transfers are appended with O_APPEND.

#include "sim_state.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ks_sim {

namespace {

std::once_flag g_root_once;
std::string g_state_dir;

std::string dir_for_root(const char *root)
{
    std::string dir = (root != nullptr) ? root : "";
    while (!dir.empty() && dir.back() == '/')
        dir.pop_back();
    return dir + "/var/run/ks-sim";
}

// The one place that reads the environment; runs at most once per process.
void init_root_from_environment()
{
    g_state_dir = dir_for_root(std::getenv("CHMGR_ROOT"));
}

// Owns a file descriptor; closes it when it goes out of scope.
class UniqueFd {
public:
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Closes now and reports whether the close (the last chance to see a
    // write error) succeeded.
    bool close_now()
    {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

private:
    int fd_;
};

std::string parent_dir(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return "/";
    return path.substr(0, slash);
}

// mkdir -p: creates every missing directory of `dir`.
bool make_dirs(const std::string &dir)
{
    std::size_t pos = 1;
    while (pos <= dir.size()) {
        std::size_t next = dir.find('/', pos);
        if (next == std::string::npos)
            next = dir.size();
        const std::string prefix = dir.substr(0, next);
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
            log_error("unable to create directory %s: %s", prefix.c_str(), std::strerror(errno));
            return false;
        }
        pos = next + 1;
    }
    return true;
}

// Opens for writing; on a missing directory creates it and tries once more.
int open_for_write(const std::string &path, int flags)
{
    const int all_flags = O_WRONLY | O_CREAT | O_CLOEXEC | flags;
    int fd = ::open(path.c_str(), all_flags, 0644);
    if (fd < 0 && errno == ENOENT && make_dirs(parent_dir(path)))
        fd = ::open(path.c_str(), all_flags, 0644);
    if (fd < 0)
        log_error("unable to open %s: %s", path.c_str(), std::strerror(errno));
    return fd;
}

bool write_all(int fd, std::string_view data, const std::string &path)
{
    while (!data.empty()) {
        const ssize_t done = ::write(fd, data.data(), data.size());
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0) {
            log_error("unable to write %s: %s", path.c_str(), std::strerror(errno));
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(done));
    }
    return true;
}

// Reads up to `want` bytes; returns the count (stops early at end of file).
std::size_t read_up_to(int fd, char *buffer, std::size_t want, const std::string &path)
{
    std::size_t got = 0;
    while (got < want) {
        const ssize_t done = ::read(fd, buffer + got, want - got);
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            log_error("unable to read %s: %s", path.c_str(), std::strerror(errno));
        if (done <= 0)
            break;
        got += static_cast<std::size_t>(done);
    }
    return got;
}

int open_for_read(const std::string &path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 && errno != ENOENT)
        log_error("unable to open %s: %s", path.c_str(), std::strerror(errno));
    return fd;
}

} // namespace

std::mutex &api_mutex()
{
    static std::mutex mutex;
    return mutex;
}

const std::string &state_dir()
{
    std::call_once(g_root_once, init_root_from_environment);
    return g_state_dir;
}

void set_root(const char *root)
{
    // An explicit root wins for good: the environment is then never read.
    std::call_once(g_root_once, [] {});
    g_state_dir = dir_for_root(root);
}

std::string state_path(std::string_view name)
{
    std::string path = state_dir();
    path += '/';
    path += name;
    return path;
}

std::string slot_path(unsigned slot, std::string_view name)
{
    std::string path = state_dir();
    path += "/slot";
    path += std::to_string(slot);
    path += '/';
    path += name;
    return path;
}

void log_error(const char *format, ...)
{
    char message[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    std::fprintf(stderr, "ks-sim: %s\n", message);
}

bool read_file(const std::string &path, std::string &text)
{
    text.clear();
    UniqueFd fd(open_for_read(path));
    if (!fd.valid())
        return false;
    char chunk[4096];
    while (text.size() < kMaxStateFileBytes) {
        const std::size_t want = std::min(sizeof chunk, kMaxStateFileBytes - text.size());
        const std::size_t got = read_up_to(fd.get(), chunk, want, path);
        text.append(chunk, got);
        if (got < want)
            break;
    }
    return true;
}

std::size_t read_prefix(const std::string &path, uint8_t *buffer, std::size_t want)
{
    UniqueFd fd(open_for_read(path));
    if (!fd.valid())
        return 0;
    return read_up_to(fd.get(), reinterpret_cast<char *>(buffer), want, path);
}

bool file_exists(const std::string &path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

bool write_file_atomic(const std::string &path, std::string_view content)
{
    const std::string temp = path + ".tmp";
    UniqueFd fd(open_for_write(temp, O_TRUNC));
    if (!fd.valid())
        return false;
    const bool written = write_all(fd.get(), content, temp);
    if (!fd.close_now() || !written) {
        log_error("unable to complete %s", temp.c_str());
        ::unlink(temp.c_str());
        return false;
    }
    return rename_file(temp, path);
}

bool append_file(const std::string &path, std::string_view data)
{
    UniqueFd fd(open_for_write(path, O_APPEND));
    if (!fd.valid())
        return false;
    // A short text goes out in one write(2), so lines of concurrent
    // appenders do not interleave.
    return write_all(fd.get(), data, path);
}

bool remove_file(const std::string &path)
{
    if (::unlink(path.c_str()) == 0 || errno == ENOENT)
        return true;
    log_error("unable to remove %s: %s", path.c_str(), std::strerror(errno));
    return false;
}

bool rename_file(const std::string &from, const std::string &to)
{
    if (::rename(from.c_str(), to.c_str()) == 0)
        return true;
    log_error("unable to rename %s to %s: %s", from.c_str(), to.c_str(), std::strerror(errno));
    return false;
}

} // namespace ks_sim
