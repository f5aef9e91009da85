// Every name is looked up in a folder that was checked, and no link is followed.
#include "adapters/job/StateFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace eas::job {
namespace {

constexpr std::string_view prefix = "job-";

std::string file_of(uint32_t job) {
    return std::string(prefix) + std::to_string(job);
}

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

/// A record has a line per CPU, at most, and some more.
constexpr size_t longest_record = size_t{16} << 20;

/// Text of an open file.
std::string read_text(int fd) {
    std::string text;
    std::array<char, 4096> part;
    for (ssize_t got = 0; (got = ::read(fd, part.data(), part.size())) != 0;) {
        if (got < 0 && errno != EINTR)
            fail("reading a job's record");
        if (got > 0)
            text.append(part.data(), static_cast<size_t>(got));
        if (text.size() > longest_record)
            throw std::runtime_error("the job's record is too long");
    }
    return text;
}

void write_at_once(int fd, const std::string& text) {
    if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        fail("writing a job's record");
}

}  // namespace

StateFolder::StateFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        fail(path);
    folder_ = Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!folder_.is_open() || ::fstat(folder_.get(), &status) != 0)
        fail(path);
    if (status.st_uid != ::geteuid() || (status.st_mode & 077) != 0)
        throw std::runtime_error(path + ": must belong to root, mode 0700");
}

Descriptor StateFolder::lock(std::chrono::milliseconds patience) const {
    Descriptor file(
        ::openat(folder_.get(), "lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.is_open())
        fail("the lock of the records");
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() > deadline)
            fail("the lock of the records");
        ::poll(nullptr, 0, 10);
    }
    return file;
}

/// Not open where there is no such record. What is no file of root's would not be ours, and a pipe
/// would hold up whoever opens it.
Descriptor StateFolder::open(uint32_t job, int flags) const {
    Descriptor file(::openat(folder_.get(), file_of(job).c_str(),
                             flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat status {};
    if (file.is_open() && (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
                           status.st_uid != ::geteuid()))
        throw std::runtime_error(file_of(job) + ": not a file of root's");
    return file;
}

void StateFolder::create(const JobRequest& request, const JobPlace& place) const {
    remove(request.job);
    const Descriptor file = open(request.job, O_WRONLY | O_CREAT | O_EXCL);
    if (!file.is_open())
        fail("a record for the job");
    write_at_once(file.get(), line::request(request) + line::place(place));
}

void StateFolder::append(uint32_t job, const std::string& lines) const {
    const Descriptor file = open(job, O_WRONLY | O_APPEND);
    if (!file.is_open())
        fail("the job's record");
    write_at_once(file.get(), lines);
}

std::optional<JobRecord> StateFolder::read(uint32_t job) const {
    const Descriptor file = open(job, O_RDONLY);
    if (!file.is_open() && errno == ENOENT)
        return std::nullopt;
    if (!file.is_open())
        fail("the job's record");
    return parse_record(read_text(file.get()));
}

std::vector<uint32_t> StateFolder::jobs() const {
    std::vector<uint32_t> found;
    const int listed = ::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(listed), ::closedir);
    if (entries == nullptr)
        fail("the folder of the records");
    while (const dirent* entry = ::readdir(entries.get())) {
        std::string_view name = entry->d_name;
        if (name.substr(0, prefix.size()) != prefix)
            continue;
        name.remove_prefix(prefix.size());
        uint32_t job = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), job);
        if (error == std::errc{} && end == name.data() + name.size())
            found.push_back(job);
    }
    return found;
}

// The name of a socket may have 107 characters, that of the folder may have more.
std::string StateFolder::socket_of(uint32_t job) const {
    return "/proc/self/fd/" + std::to_string(folder_.get()) + "/keeper-" + std::to_string(job);
}

void StateFolder::remove(uint32_t job) const {
    ::unlink(socket_of(job).c_str());
    if (::unlinkat(folder_.get(), file_of(job).c_str(), 0) != 0 && errno != ENOENT)
        fail("removing a job's record");
}

}  // namespace eas::job
