// The files of a fake node's /sys and /proc: folders, links, texts, and attributes that a driver
// answers. Single-threaded; the server's lock guards it once the node runs.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace eas::fake {

struct TreeEntry {
    enum class Kind { folder, file, link };

    Kind kind = Kind::folder;
    mode_t mode = 0755;
    std::string text;                              // content, or the link's target
    std::function<std::string()> show;             // replaces `text`
    std::function<int(const std::string&)> store;  // takes a whole write; 0 or a negative errno
    std::map<std::string, std::unique_ptr<TreeEntry>, std::less<>> children;
    std::map<std::string, std::unique_ptr<TreeEntry>, std::less<>> away;  // while a CPU is offline

    [[nodiscard]] TreeEntry* child(std::string_view name);
    /// Text of a file below, without the newline; `otherwise` when it is not there.
    [[nodiscard]] std::string value(std::string_view path, const std::string& otherwise = "");
    /// The number that a file below begins with.
    [[nodiscard]] long long number(std::string_view path, long long otherwise = 0);
    /// Entry at a relative or absolute path; null when there is none. Links are not followed.
    [[nodiscard]] TreeEntry* find(std::string_view path);
    /// The same, made where it is missing, folders on the way included.
    TreeEntry& make(std::string_view path, Kind kind);
    /// Makes or replaces a file.
    TreeEntry& put(std::string_view path, std::string text, mode_t mode = 0444);
    /// Makes a file answer as an attribute; without effect when it is not there.
    void attach(std::string_view path, std::function<std::string()> show,
                std::function<int(const std::string&)> store = nullptr);
    /// Calls `visit(name, entry)` for each folder or link below `path` whose name has this prefix.
    void each(std::string_view path, std::string_view prefix,
              const std::function<void(const std::string&, TreeEntry&)>& visit);
    /// Calls `visit(path)` for each file below `path`, in its folders too.
    void each_file(const std::string& path, const std::function<void(const std::string&)>& visit);
};

/// An errno that a text stands for: "!EACCES" is a file that fails so; 0 for any other text.
int refusal_of(std::string_view text);

/// The other way, from what strerror says; empty for an errno that no text stands for.
std::string refusal_text(const std::string& description);

/// The CPUs of a list like "0-3,8" or "0 1 2"; throws std::runtime_error.
std::vector<int> cpu_list(const std::string& text);
/// The other way: ranges joined by commas, and a newline.
std::string list_text(const std::vector<int>& cpus);

}  // namespace eas::fake
