// Nodes of the shapes with eight CPUs: what is tried there is the same as with some hundred, and
// takes a fraction of the time.
#pragma once

#include <functional>
#include <string>

#include "tests/node/NodeTest.h"

namespace eas::test {

inline const std::string cpu_folder = "/sys/devices/system/cpu/";

/// A file of cpufreq.
std::string policy_file(int policy, const char* name);

/// Puts a file, or another text, into a shape.
void put(NodeShape& shape, const std::string& path, const std::string& text);

/// A shape with eight CPUs of those that the file has; two of them share a clock where its do.
NodeShape small_node(const std::string& name);

/// Runs a transcript. Blocks between empty lines: "on SHAPE", a small one that does no work; its
/// files "/PATH = TEXT" ("*" for the numbers 0 to 7); then, inside the node, lines for `command`,
/// each with what that gives below it, and files that say something else. "/PATH =": it is gone. At
/// the end "end" is given, for what is open.
void replay(const std::string& transcript,
            const std::function<std::string(FakeNode&, const std::string& line)>& command);

}  // namespace eas::test
