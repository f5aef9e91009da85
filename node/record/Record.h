// A record of the node: the files that the library reads, each with its content or the reason why
// it cannot be read, without what tells which node it is. Any thread may call.
#pragma once

#include <functional>
#include <string>

namespace eas::node {

struct RecordedFile {
    std::string path;
    std::string content;  // of a link: where it leads
    int error = 0;        // errno of reading it
    int mode = 0;         // permission bits
    bool is_link = false;
};

/// Hands each file to `take`, in ascending order of the paths, until that returns false. False when
/// it did. `with_host_name` adds the file that names the node.
bool record_node(bool with_host_name, const std::function<bool(const RecordedFile&)>& take);

}  // namespace eas::node
