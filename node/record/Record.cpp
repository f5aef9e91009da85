#include "node/record/Record.h"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <map>
#include <string_view>

#include "node/files/PseudoFile.h"
#include "node/record/Paths.h"

namespace eas::node {
namespace {

class Matches {
  public:
    explicit Matches(const char* pattern) {
        found_ = ::glob(pattern, GLOB_NOSORT, nullptr, &result_) == 0;
    }
    ~Matches() { ::globfree(&result_); }
    Matches(const Matches&) = delete;
    Matches& operator=(const Matches&) = delete;

    [[nodiscard]] char** begin() const { return result_.gl_pathv; }
    [[nodiscard]] char** end() const { return result_.gl_pathv + (found_ ? result_.gl_pathc : 0); }

  private:
    glob_t result_{};
    bool found_;
};

/// Attributes that name a single device, and files that only take writes or tear something down.
bool is_left_out(std::string_view path) {
    const std::string_view name = path.substr(path.rfind('/') + 1);
    return name.find("serial") != std::string_view::npos ||
           name.find("asset") != std::string_view::npos;
}

/// The lines of a text for which `wanted` holds.
template <typename Wanted>
std::string lines_of(std::string_view text, const Wanted& wanted) {
    std::string kept;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        if (wanted(line))
            kept += std::string(line) + '\n';
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return kept;
}

std::string kept_part(const std::string& text, Keep keep) {
    switch (keep) {
        case Keep::resctrl_lines:
            return lines_of(text,
                            [](std::string_view line) { return line.substr(0, 8) == "resctrl "; });
        case Keep::no_serials:
            return lines_of(text,
                            [](std::string_view line) { return line.substr(0, 6) != "Serial"; });
        default:
            return text + '\n';
    }
}

std::string target_of(const char* link) {
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink(link, target.data(), target.size());
    return {target.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

/// False for what is no file any more, or a folder.
bool record_file(const char* path, Keep keep, RecordedFile& file) {
    struct stat status {};
    if (::stat(path, &status) != 0)
        return false;
    file.path = path;
    file.mode = static_cast<int>(status.st_mode & 07777);
    // Folders are there through their files, but a link to one says what belongs together.
    if (S_ISDIR(status.st_mode)) {
        file.content = target_of(path);
        file.is_link = !file.content.empty();
        return file.is_link;
    }
    // Without a right to read there is nothing to say.
    if (!S_ISREG(status.st_mode) || (file.mode & 0444) == 0)
        return false;
    const FileText text = read_text(path);
    file.error = text.error;
    if (text.good())
        file.content = kept_part(text.text, keep);
    return true;
}

}  // namespace

bool record_node(bool with_host_name, const std::function<bool(const RecordedFile&)>& take) {
    std::map<std::string, Keep> paths;
    for (const PathPattern* row = path_patterns; row->pattern != nullptr; ++row)
        if (row->keep != Keep::not_at_all)
            for (const char* path : Matches(row->pattern))
                if (!is_left_out(path))
                    paths.emplace(path, row->keep);
    if (with_host_name)
        paths.emplace(host_name_file, Keep::whole);
    for (const auto& [path, keep] : paths) {
        RecordedFile file;
        if (record_file(path.c_str(), keep, file) && !take(file))
            return false;
    }
    return true;
}

}  // namespace eas::node
