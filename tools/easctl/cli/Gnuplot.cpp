#include "tools/easctl/cli/Gnuplot.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "tools/easctl/cli/InputFile.h"
#include "tools/easctl/cli/OutputFile.h"

namespace easctl {

namespace {

struct Kind {
    std::string_view ending;    // of the file's name
    const char* terminal;       // of gnuplot
    std::string_view last_tag;  // without which the picture is not whole
};
constexpr std::array kinds{
    Kind{".svg", "svg size 960,600 noenhanced font 'sans,13' background 'white'", "</svg>"},
    Kind{".png", "pngcairo size 960,600 noenhanced font 'sans,11'", "IEND"}};

/// Null for a name that tells no kind.
const Kind* kind_of(std::string_view file) {
    for (const Kind& kind : kinds) {
        const std::size_t length = kind.ending.size();
        if (file.size() > length && file.substr(file.size() - length) == kind.ending)
            return &kind;
    }
    return nullptr;
}

class SpawnActions {
  public:
    SpawnActions() { ::posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    void connect(int fd, int to) { ::posix_spawn_file_actions_adddup2(&actions_, fd, to); }
    [[nodiscard]] const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

/// Runs gnuplot from one file into another; its messages go to standard error.
void run_gnuplot(int script, int picture) {
    SpawnActions actions;
    actions.connect(script, STDIN_FILENO);
    actions.connect(picture, STDOUT_FILENO);
    std::array<char, 8> program{"gnuplot"};
    std::array<char, 2> from_standard_input{"-"};
    std::array<char*, 3> arguments{program.data(), from_standard_input.data(), nullptr};
    pid_t child = -1;
    const int error =
        ::posix_spawnp(&child, program.data(), actions.get(), nullptr, arguments.data(), environ);
    if (error == ENOENT)
        throw Failure(ExitCode::found, "gnuplot is not installed",
                      "apt install gnuplot-nox, then run the command again");
    if (error != 0)
        throw Failure(ExitCode::found,
                      std::string("gnuplot cannot be run: ") + std::strerror(error));
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw Failure(ExitCode::found, "gnuplot failed; its own message is above");
}

/// In memory: gnuplot itself would not notice a full disk.
std::string picture_of(const Kind& kind, const std::string& commands) {
    const eas::UniqueFd script =
        memory_file(std::string("set terminal ") + kind.terminal + '\n' + commands);
    const eas::UniqueFd file = memory_file("");
    run_gnuplot(script.get(), file.get());
    struct stat status {};
    ::fstat(file.get(), &status);
    std::string picture(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t got = ::pread(file.get(), picture.data(), picture.size(), 0);
    if (got != status.st_size || picture.find(kind.last_tag) == std::string::npos)
        throw Failure(ExitCode::found, "gnuplot drew only a part");
    return picture;
}

}  // namespace

void add_plot_option(CLI::App& command, std::string& file, const std::string& description) {
    add_option(command, "--plot", file, description + " into a .svg or .png")
        .check(Check([](const std::string& name) {
            return kind_of(name) != nullptr ? std::string()
                                            : name + " does not end in .svg or .png";
        }))
        .type_name("FILE");
}

void draw(const std::string& file, const std::string& commands, Globals& globals) {
    const Kind* const kind = kind_of(file);
    if (kind == nullptr)
        return;
    flush_output();
    try {
        if (commands.empty())
            throw Failure(ExitCode::found, "there is no value to draw");
        write_file(file, picture_of(*kind, commands));
        remark(globals, "drawn: " + file);
    } catch (const Failure& failure) {
        complain({failure.code, "the picture " + file + " was not drawn: " + failure.message,
                  failure.hint});
        globals.outcome = failure.code;
    }
}

std::string plot_heading(const std::string& title, const std::string& subtitle) {
    return "set label 1 " + plot_text(title) +
           " at screen 0.02,0.955 left font ',15'\n"
           "set label 2 " +
           plot_text(subtitle) +
           " at screen 0.02,0.905 left font ',10' tc rgb '#555555'\n"
           "set tmargin at screen 0.85\n";
}

std::string plot_text(const std::string& text) {
    std::string quoted = "'";
    for (const char c : printable(text)) {
        if (c == '\'')
            quoted += '\'';
        quoted += c;
    }
    return quoted + '\'';
}

}  // namespace easctl
