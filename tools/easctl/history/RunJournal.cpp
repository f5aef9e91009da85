#include "tools/easctl/history/RunJournal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/history/RunCsv.h"

namespace easctl {
namespace {

constexpr std::size_t block = std::size_t{64} * 1024;
constexpr std::string_view mark = "\n# until=";

std::string heading() {
    return "# Runs of jobs, written by easctl history --append.\n" + run_csv_header();
}

}  // namespace

RunJournal::RunJournal(std::string path)
    : path_(std::move(path)),
      file_(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640)) {
    if (!file_.is_open())
        refuse("cannot be opened");
    if (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0)
        refuse(errno == EWOULDBLOCK ? "another update of it is under way" : "cannot be locked");
    find_end();
}

/// Reads backwards to the last mark; blocks overlap by the longest mark.
void RunJournal::find_end() {
    struct stat status {};
    if (::fstat(file_.get(), &status) != 0 || !S_ISREG(status.st_mode))
        refuse("is no plain file");
    off_t end = 0;
    std::string text(block + 64, '\0');
    for (off_t from = status.st_size; from > 0 && !until_;) {
        from = std::max<off_t>(0, from - static_cast<off_t>(block));
        const ssize_t got = ::pread(file_.get(), text.data(), text.size(), from);
        if (got < 0)
            refuse("cannot be read");
        const auto part = std::string_view(text.data(), static_cast<std::size_t>(got));
        const std::size_t place = part.rfind(mark);
        const std::size_t line_end =
            place == std::string_view::npos ? place : part.find('\n', place + 1);
        if (line_end == std::string_view::npos)
            continue;
        const std::size_t number = place + mark.size();
        until_ = parse_number(part.substr(number, line_end - number));
        end = from + static_cast<off_t>(line_end) + 1;
    }
    start_file(status.st_size);
    if (::ftruncate(file_.get(), end) != 0 || ::lseek(file_.get(), end, SEEK_SET) != end)
        refuse("cannot be written");
}

/// A file without a mark is new, or its first update was cut short; anything else is not ours.
void RunJournal::start_file(off_t size) {
    std::string start(std::min(heading().size(), static_cast<std::size_t>(size)), '\0');
    errno = 0;
    if (::pread(file_.get(), start.data(), start.size(), 0) != static_cast<ssize_t>(start.size()))
        refuse("cannot be read");
    if (start != heading().substr(0, start.size()))
        refuse("is no such file, or one of another version: move it away");
    if (!until_)
        buffer_ = heading();
}

void RunJournal::add(const Run& run) {
    buffer_ += run_csv_line(run);
    if (buffer_.size() >= block)
        write();
}

void RunJournal::finish(double until) {
    buffer_.append(mark.substr(1)).append(exact(until)).append("\n");
    write();
    if (::fsync(file_.get()) != 0)
        refuse("cannot be written");
    until_ = until;
}

void RunJournal::write() {
    for (std::size_t done = 0; done < buffer_.size();) {
        const ssize_t n = ::write(file_.get(), buffer_.data() + done, buffer_.size() - done);
        if (n < 0 && errno != EINTR)
            refuse("cannot be written");
        done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    buffer_.clear();
}

void RunJournal::refuse(const char* what) const {
    throw Failure(
        ExitCode::input,
        path_ + ": " + what + (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
}

}  // namespace easctl
