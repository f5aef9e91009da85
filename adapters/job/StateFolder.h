// StateFolder.h - the records of a node's jobs: one file per job, in a folder that only root may
// read. Processes of the job append to it, each line with a single write.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "adapters/job/Descriptor.h"
#include "adapters/job/JobRecord.h"

namespace eas::job {

/// The folder of the records. Every function throws std::runtime_error when the folder is not to be
/// trusted (a link, not root's, open to others), when a record in it is not, or the system refuses.
class StateFolder {
  public:
    explicit StateFolder(const std::string& path);

    /// Keeps other processes that begin or end a job away until the result is destroyed.
    [[nodiscard]] Descriptor lock(std::chrono::milliseconds patience) const;
    /// Starts a job's record anew.
    void create(const JobRequest& request, const JobPlace& place) const;
    void append(uint32_t job, const std::string& lines) const;
    /// Empty when the job has no record here.
    [[nodiscard]] std::optional<JobRecord> read(uint32_t job) const;
    [[nodiscard]] std::vector<uint32_t> jobs() const;
    void remove(uint32_t job) const;
    /// Where the job's keeper listens; a name that holds as long as this object.
    [[nodiscard]] std::string socket_of(uint32_t job) const;

  private:
    [[nodiscard]] Descriptor open(uint32_t job, int flags) const;

    Descriptor folder_;
};

}  // namespace eas::job
