// The trace log of the database layer, caught in memory for the length of a block.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "base/UniqueFd.h"
#include "db/base_class/DBTracer.h"

namespace eas::test {

class TraceCapture {
  public:
    /// Without a prefix the log is the messages alone, each followed by an empty line.
    explicit TraceCapture(bool prefix = false) : file_(::memfd_create("trace", MFD_CLOEXEC)) {
        DBTracer::logprefix(prefix);
        dbtrace_config(file_.get());
    }
    ~TraceCapture() {
        dbtrace_config(-1);
        DBTracer::logprefix(true);
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    [[nodiscard]] std::string text() const {
        std::string text(static_cast<std::size_t>(::lseek(file_.get(), 0, SEEK_END)), '\0');
        [[maybe_unused]] const auto read = ::pread(file_.get(), text.data(), text.size(), 0);
        return text;
    }

  private:
    UniqueFd file_;
};

}  // namespace eas::test
