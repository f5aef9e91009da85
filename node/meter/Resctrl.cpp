// Memory traffic by the bandwidth monitors of the last-level caches, where resctrl is mounted: the
// sum of the groups that there are when the meter is opened.
#include "node/meter/Resctrl.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "node/files/KeptFile.h"
#include "node/files/PseudoFile.h"
#include "node/meter/Source.h"

namespace eas::node {
namespace {

const char* const resctrl_root = "/sys/fs/resctrl";

/// One cache's bytes of one group.
struct Monitor {
    KeptFile file;
    std::uint64_t first = 0;
    std::uint64_t last = 0;
};

bool is_cache(const std::string& name) {
    return name.rfind("mon_L3_", 0) == 0;
}

class Resctrl : public Source {
  public:
    bool open(std::string& reason) {
        coverage_ = {EASNODE_CORES, "cores' memory traffic, without DMA", 0};
        if (!is_mounted(read_text("/proc/mounts").text)) {
            reason = "resctrl is not mounted on /sys/fs/resctrl";
            return false;
        }
        const FileText features =
            read_text(std::string(resctrl_root) + "/info/L3_MON/mon_features");
        const auto words = words_of(features.text);
        if (std::find(words.begin(), words.end(), "mbm_total_bytes") == words.end()) {
            reason = features.good() ? "resctrl: no mbm_total_bytes on this processor"
                                     : why("resctrl: mon_features", features.error);
            return false;
        }
        root_.reset(::open(resctrl_root, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        groups_ = count_groups();
        return open_groups(reason);
    }

    void read(Nanoseconds, Result& result) override {
        if (count_groups() != groups_) {
            result.end("resctrl: groups were made or removed, and traffic with them");
            return;
        }
        std::uint64_t bytes = 0;
        for (Monitor& monitor : monitors_) {
            const auto value = monitor.file.number();
            if (!value || *value < monitor.last) {
                result.end(value ? monitor.file.path() + " went backwards" : monitor.file.reason());
                return;
            }
            monitor.last = *value;
            bytes += *value - monitor.first;
        }
        result.values[0] = static_cast<double>(bytes);
        if (bytes == 0)
            result.wait_for("resctrl: no traffic since the meter was opened");
    }

  private:
    // Every folder below is one more link to the root.
    [[nodiscard]] nlink_t count_groups() const {
        struct stat root {};
        return ::fstat(root_.get(), &root) == 0 ? root.st_nlink : 0;
    }

    bool open_groups(std::string& reason) {
        bool good = open_group(resctrl_root, reason);
        for (const std::string& name : names_in(resctrl_root)) {
            const std::string group = std::string(resctrl_root) + "/" + name;
            // A group's own monitoring groups are contained in it, so are the root's.
            if (good && name != "info" && name != "mon_groups" && name != "mon_data")
                good = open_group(group, reason);
        }
        if (good && monitors_.empty())
            reason = "resctrl: no cache is monitored";
        return good && !monitors_.empty();
    }

    bool open_group(const std::string& group, std::string& reason) {
        const std::string data = group + "/mon_data";
        for (const std::string& name : names_in(data)) {
            if (!is_cache(name))
                continue;
            std::string path = data + "/";
            path.append(name).append("/mbm_total_bytes");
            Monitor monitor{KeptFile(path)};
            auto value = monitor.file.number();
            if (!value)  // the first reading after a change may say "Unavailable"
                value = monitor.file.number();
            if (!value) {
                reason = monitor.file.reason();
                return false;
            }
            monitor.first = monitor.last = *value;
            monitors_.push_back(std::move(monitor));
        }
        return true;
    }

    UniqueFd root_;
    nlink_t groups_ = 0;
    std::vector<Monitor> monitors_;
};

}  // namespace

bool is_mounted(std::string_view mounts) {
    while (!mounts.empty()) {
        const std::size_t end = std::min(mounts.find('\n'), mounts.size());
        const auto words = words_of(mounts.substr(0, end));
        if (words.size() > 2 && words[1] == resctrl_root && words[2] == "resctrl")
            return true;
        mounts.remove_prefix(std::min(end + 1, mounts.size()));
    }
    return false;
}

std::unique_ptr<Source> open_resctrl(const Request&, std::string& reason) {
    auto source = std::make_unique<Resctrl>();
    return source->open(reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
