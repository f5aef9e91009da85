// ChildCall.h - work that may hang or crash, done in a child process with a time limit.
//
// Slurm drains a node whose prolog or epilog crashes, and a step daemon that dies takes its job
// with it. So whatever touches the library, the database or the hardware happens in a child, which
// holds none of the parent's descriptors and sends back a sentence.
#pragma once

#include <functional>
#include <string>

#include "adapters/job/Descriptor.h"

namespace eas::job {

/// What came of it, in words for the log; `good` tells whether it is as the user wanted it.
struct Outcome {
    bool good = true;
    std::string text;
};

/// The result of `work` in a child; after `seconds` the child is killed. Never throws but for lack
/// of memory; an exception in `work` becomes a bad outcome with its text.
Outcome call_in_child(int seconds, const std::function<Outcome()>& work);

/// A process beside this one, not among its children and in a session of its own: neither a daemon
/// that waits for any child of its own nor one that ends a group of processes must meet it.
class Companion {
  public:
    /// `work` gets its end of a channel.
    explicit Companion(const std::function<void(int channel)>& work);
    /// What it sent since, up to `seconds` after the call; empty when nothing came.
    [[nodiscard]] std::string answer(int seconds) const;

  private:
    Descriptor channel_;
};

}  // namespace eas::job
