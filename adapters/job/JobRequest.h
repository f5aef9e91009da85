// JobRequest.h - what a user asked for with --energy-tag and --energy-policy. The same checks hold
// where the options are given and, as root, on the nodes: a client can be tampered with.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace eas::job {

/// What is done with a job.
enum class Purpose {
    plain,    // nothing, but it is noted that it runs on the node
    observe,  // it is counted; nothing is set
    measure,  // default frequency, a tag at the end
    choose,   // as its tag suggests; where there is none yet, it is measured
};

/// Letters, digits, "_", "." and "-"; 1 to 255 of them.
bool is_tag_name(std::string_view text);
/// minimize_energy, minimize_time or none.
bool is_policy(std::string_view text);

/// The tag that a job's name stands for: other characters become "_", what is longer than 255 is
/// cut. Empty for the names that many programs share: none, "bash", "sh", "interactive", "wrap".
std::string tag_of_name(std::string_view name);

/// A job on this node, as the scheduler knows it and as its owner wants it.
struct JobRequest {
    uint32_t job = 0;
    uint32_t user = 0;
    std::string tag;
    std::string policy;
    bool observed = false;

    [[nodiscard]] Purpose purpose() const {
        if (observed)
            return Purpose::observe;
        if (tag.empty())
            return Purpose::plain;
        return policy.empty() || policy == "none" ? Purpose::measure : Purpose::choose;
    }
};

/// The first name of a list such as "n[1-3],m7".
std::string first_node(std::string_view nodes);
/// How many names such a list stands for.
unsigned number_of_nodes(std::string_view nodes);

}  // namespace eas::job
