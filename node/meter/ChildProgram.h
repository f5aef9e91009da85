// Runs a program of the site's for its output, for a limited time: no shell, an environment of its
// own, no descriptor of ours, a process group that is killed as a whole at the end. One thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "node/meter/Source.h"

namespace eas::node {

class ChildProgram {
  public:
    /// `arguments`: the first one is the program's absolute path.
    ChildProgram(std::vector<std::string> arguments, Nanoseconds limit)
        : arguments_(std::move(arguments)), limit_(limit) {}
    ~ChildProgram() { reap(false); }
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;

    /// Runs it once. False with a reason: it could not be started, did not end in time, wrote too
    /// much, or ended with a status that is not 0.
    bool run(std::string& output, std::string& reason);

  private:
    bool start(int output_end, std::string& reason);
    bool collect(int pipe, std::string& output, std::string& reason);
    bool reap(bool until_limit, int* status = nullptr);

    std::vector<std::string> arguments_;
    Nanoseconds limit_;
    Nanoseconds deadline_ = 0;
    pid_t pid_ = -1;  // of the one that runs, or that would not die
};

}  // namespace eas::node
