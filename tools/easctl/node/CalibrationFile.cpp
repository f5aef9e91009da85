#include "tools/easctl/node/CalibrationFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {
namespace {

constexpr std::array<const char*, 4> node_columns = {"nominal_khz", "cpus", "host", "meter"};

std::string header() {
    std::string line;
    for (const char* name : measurement_columns)
        line += name + std::string(",");
    for (const char* name : node_columns)
        line += name + std::string(name == node_columns.back() ? "\n" : ",");
    return line;
}

}  // namespace

CalibrationFile::CalibrationFile(std::string path, CalibrationNode node)
    : path_(std::move(path)), node_(std::move(node)) {
    file_.reset(::open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!file_.is_open())
        throw Failure(ExitCode::input, path_ + ": " + std::strerror(errno));
    struct stat status {};
    if (::fstat(file_.get(), &status) != 0 || !S_ISREG(status.st_mode))
        throw Failure(ExitCode::input, path_ + ": no plain file, which a calibration goes on with",
                      "name another file with --out");
    if (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0)
        throw Failure(ExitCode::input, path_ + ": another calibration is writing it",
                      "wait for it, or write to another file with --out");
    drop_partial_line();
    if (::fstat(file_.get(), &status) == 0 && status.st_size == 0)
        append(header());
    read_rows();
}

/// Also of the header. Nothing is cut off a file that does not begin as ours does.
void CalibrationFile::drop_partial_line() {
    const std::string expected = header();
    std::string content;
    std::array<char, 65536> block{};
    ssize_t got = 0;
    while ((got = ::pread(file_.get(), block.data(), block.size(),
                          static_cast<off_t>(content.size()))) > 0)
        content.append(block.data(), static_cast<std::size_t>(got));
    const bool ours = content.compare(0, expected.size(), expected) == 0 ||
                      expected.compare(0, content.size(), content) == 0;
    if (got < 0 || !ours)
        throw Failure(ExitCode::input, path_ + ":1: not a file that a calibration wrote",
                      "name another file with --out");
    const std::size_t end = content.find_last_of('\n');
    const std::size_t whole = end == std::string::npos ? 0 : end + 1;
    if (whole < content.size() && ::ftruncate(file_.get(), static_cast<off_t>(whole)) != 0)
        throw Failure(ExitCode::input, path_ + ": " + std::strerror(errno));
}

void CalibrationFile::read_rows() {
    const MeasurementFile valid(path_);  // throws for what fit would refuse
    CsvFile csv(path_);
    const std::size_t common = measurement_columns.size();
    while (csv.next() == CsvFile::Step::row) {
        const auto& fields = csv.fields();
        if (fields[common] != std::to_string(node_.nominal_khz) ||
            fields[common + 1] != node_.cpus || fields[common + 2] != node_.host)
            throw Failure(ExitCode::input,
                          csv.where() + ": measured on host " + std::string(fields[common + 2]) +
                              ", CPUs " + std::string(fields[common + 1]) + ", nominal " +
                              std::string(fields[common]) + " kHz; this is host " + node_.host +
                              ", CPUs " + node_.cpus + ", nominal " +
                              std::to_string(node_.nominal_khz) + " kHz",
                          "one file holds one node's measurements: name another with --out");
        if (fields[common + 3] != node_.meter)
            throw Failure(ExitCode::input,
                          csv.where() + ": measured by " + std::string(fields[common + 3]) +
                              ", this would be " + node_.meter,
                          "what two meters measured has no common measure: choose the sources, or "
                          "name another file with --out");
        done_.emplace(fields[0], std::stoi(std::string(fields[1])));
    }
}

void CalibrationFile::add(const std::string& kernel, int khz, const KernelRun& run) {
    std::string line = kernel + ',' + std::to_string(khz);
    for (const double value :
         {run.elapsed_s, run.power_w, run.cycles, run.instructions, run.memory_bytes})
        line += ',' + exact(value);
    line += ',' + std::to_string(node_.nominal_khz) + ',' + node_.cpus + ',' + node_.host + ',' +
            node_.meter + '\n';
    append(line);
    done_.emplace(kernel, khz);
}

void CalibrationFile::append(const std::string& line) {
    errno = ENOSPC;  // what a short write means
    if (::write(file_.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
        ::fsync(file_.get()) != 0)
        throw Failure(ExitCode::input, path_ + ": " + std::strerror(errno),
                      "make room, then start the same command again: it goes on from here");
}

}  // namespace easctl
