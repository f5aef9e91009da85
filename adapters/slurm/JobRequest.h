// JobRequest.h - what a user asked for with --energy-tag and --energy-policy. The same checks hold
// where the options are given and, as root, on the nodes: a client can be tampered with.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace eas::slurm {

/// What the plugin does with a job.
enum class Purpose {
    plain,    // nothing, but it is noted that it runs on the node
    measure,  // default frequency, a tag at the end
    select,   // the frequency that the tag's predictions suggest
};

/// Letters, digits, "_", "." and "-"; 1 to 255 of them.
bool is_tag_name(std::string_view text);
/// minimize_energy, minimize_time or none.
bool is_policy(std::string_view text);

/// A job on this node, as Slurm knows it and as its owner wants it.
struct JobRequest {
    uint32_t job = 0;
    uint32_t user = 0;
    std::string tag;
    std::string policy;

    [[nodiscard]] Purpose purpose() const {
        if (tag.empty())
            return Purpose::plain;
        return policy.empty() || policy == "none" ? Purpose::measure : Purpose::select;
    }
};

/// The first name of a list such as "n[1-3],m7".
std::string first_node(std::string_view nodes);

}  // namespace eas::slurm
