// easctl node gather: the files that the node library reads, as an archive for a report of a fault.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "node/node.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/node/NodeCommands.h"

namespace easctl {
namespace {

namespace fs = std::filesystem;

struct GatherOptions {
    std::string archive;
    bool host_name = false;
};

/// A folder that goes with this object.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (fs::temp_directory_path() / "easctl-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw Failure(ExitCode::found, name + ": " + std::strerror(errno));
        path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    [[nodiscard]] const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

/// Puts the files into a folder as they stand on the node; those that cannot be read into a list.
class Gathering {
  public:
    explicit Gathering(fs::path folder) : folder_(std::move(folder)) {}

    /// For easnode_record; not 0: a file cannot be written.
    static int take(void* self, const easnode_file* file) {
        return static_cast<Gathering*>(self)->add(*file) ? 0 : 1;
    }
    /// Writes the list down, where there is one.
    void finish() {
        if (!unreadable_.empty())
            std::ofstream(folder_ / "unreadable") << unreadable_;
    }
    [[nodiscard]] std::size_t files() const { return files_; }
    [[nodiscard]] std::size_t unreadable() const { return unreadable_count_; }

  private:
    bool add(const easnode_file& file) {
        if (file.error != 0) {
            unreadable_ += std::string(file.path) + ": " + std::strerror(file.error) + '\n';
            ++unreadable_count_;
            return true;
        }
        const fs::path to = folder_ / fs::path(file.path).relative_path();
        std::error_code error;
        fs::create_directories(to.parent_path(), error);
        const std::string content(file.content, file.length);
        ++files_;
        if (file.is_link != 0) {
            fs::create_symlink(content, to, error);
            return !error;
        }
        std::ofstream out(to, std::ios::binary);
        out << content;
        out.close();
        return out.good() && ::chmod(to.c_str(), static_cast<mode_t>(file.mode) | 0400) == 0;
    }

    fs::path folder_;
    std::string unreadable_;
    std::size_t files_ = 0, unreadable_count_ = 0;
};

/// By the programs that every Linux system has.
void pack(const fs::path& folder, const std::string& archive) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::execlp("tar", "tar", "-czf", archive.c_str(), "--sort=name", "--owner=0", "--group=0",
                 "--numeric-owner", "--mtime=@0", "-C", folder.c_str(), ".", nullptr);
        ::_exit(127);
    }
    int status = 1;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw Failure(ExitCode::found, archive + ": the archive cannot be written",
                      "it takes the programs tar and gzip");
}

void run_gather(const GatherOptions& options, Globals& globals) {
    const TemporaryFolder folder;
    Gathering gathering(folder.path());
    const int code = easnode_record(options.host_name ? 1 : 0, Gathering::take, &gathering);
    if (code != EASNODE_OK)
        throw Failure(ExitCode::found, code == EASNODE_STOPPED
                                           ? folder.path().string() + ": no room"
                                           : std::string(easnode_error_text(code)));
    gathering.finish();
    pack(folder.path(), options.archive);
    if (globals.json)
        return print_json({{"archive", options.archive},
                           {"files", gathering.files()},
                           {"unreadable", gathering.unreadable()}});
    print(options.archive + ": " + std::to_string(gathering.files()) + " files");
    print(gathering.unreadable() == 0 ? "\n"
                                      : "; " + std::to_string(gathering.unreadable()) +
                                            " could not be read, and are listed in it\n");
}

}  // namespace

void add_gather_command(CLI::App& node, Globals& globals) {
    CLI::App& command = add_command(
        node, "gather",
        "writes an archive (tar.gz) of the files below /proc and /sys that easctl and libeasnode\n"
        "read, for a report of a fault: no serial numbers, no addresses, no names of jobs",
        "easctl node gather node.tar.gz");
    const auto options = std::make_shared<GatherOptions>();
    add_option(command, "FILE", options->archive, "the archive").required().type_name("FILE");
    add_flag(command, "--host-name", options->host_name, "also the node's name");
    set_action(command, [options, &globals] { run_gather(*options, globals); });
}

}  // namespace easctl
