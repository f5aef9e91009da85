// ChildCall.h - work that may hang or crash, done in a child process with a time limit.
//
// Slurm drains a node whose prolog or epilog crashes, and a step daemon that dies takes its job
// with it. So whatever touches the library, the database or the hardware happens in a child, which
// holds none of the parent's descriptors and sends back a sentence.
#pragma once

#include <functional>
#include <string>

#include "adapters/slurm/Descriptor.h"

namespace eas::slurm {

/// What came of it, in words for the log; `good` tells whether it is as the user wanted it.
struct Outcome {
    bool good = true;
    std::string text;
};

/// The result of `work` in a child; after `seconds` the child is killed. Never throws but for lack
/// of memory; an exception in `work` becomes a bad outcome with its text.
Outcome call_in_child(int seconds, const std::function<Outcome()>& work);

/// A process beside this one, not among its children: a daemon that waits for any child of its own
/// must not meet it. It ends by itself when this end of the channel is closed.
class Companion {
  public:
    /// `work` gets its end of the channel.
    explicit Companion(const std::function<void(int channel)>& work);
    void send(char word) const;
    /// What it sent since, up to `seconds` after the call; empty when nothing came.
    [[nodiscard]] std::string answer(int seconds) const;

  private:
    Descriptor channel_;
};

}  // namespace eas::slurm
