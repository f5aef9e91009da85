// What the tests of the node interface share: a body runs inside a fake node, in a process of its
// own, and must leave descriptors, threads, affinity and user ids as it found them.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/ScratchFolder.h"
#include "tests/support/fakenode/FakeNode.h"

namespace eas::test {

using fake::FakeNode;
using fake::NodeShape;

class NodeTest : public ::testing::Test {
  protected:
    void SetUp() override;
};

/// A node of this processor model: its sockets, cores of a socket, threads of a core.
NodeShape of_model(int model, int sockets = 2, int cores = 4, int threads = 2);

/// Runs `body`, which may use gtest's assertions, inside the node.
void inside(FakeNode& node, const std::function<void()>& body);

/// Open descriptors, number of threads, affinity and user ids of this process, as text.
std::string footprint();
std::vector<std::string> open_descriptors();

/// "policy file=text" of every write to cpufreq since the last call; the policy of all is -1.
std::vector<std::string> writes(FakeNode& node);

/// An empty folder in place of `path` for the length of a block.
class Hidden {
  public:
    explicit Hidden(std::string path);
    ~Hidden();
    Hidden(const Hidden&) = delete;
    Hidden& operator=(const Hidden&) = delete;

  private:
    std::string path_;
};

/// Numbers of the system calls that `body` makes, in a forked process, after `prepare`.
std::vector<long> system_calls_of(const std::function<void()>& prepare,
                                  const std::function<void()>& body);

/// The files that `body` opens, folders left out.
std::set<std::string> paths_opened_by(const std::function<void()>& body);

}  // namespace eas::test
