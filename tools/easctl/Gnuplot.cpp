#include "tools/easctl/Gnuplot.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "base/UniqueFd.h"
#include "tools/easctl/Errors.h"
#include "tools/easctl/Output.h"

namespace easctl {

namespace {

bool ends_in(const std::string& file, const char* ending) {
    const std::size_t length = std::strlen(ending);
    return file.size() > length && file.compare(file.size() - length, length, ending) == 0;
}

std::string terminal_for(const std::string& file) {
    if (ends_in(file, ".svg"))
        return "svg size 960,600 noenhanced font 'sans,13' background 'white'";
    if (ends_in(file, ".png"))
        return "pngcairo size 960,600 noenhanced font 'sans,11'";
    throw Failure(ExitCode::usage, file + ": what kind of picture?",
                  "end its name in .svg or .png");
}

/// A file in memory with `text`, at its start.
eas::UniqueFd memory_file(const std::string& text) {
    eas::UniqueFd file(::memfd_create("gnuplot", MFD_CLOEXEC));
    if (!file.is_open() ||
        ::pwrite(file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        throw Failure(ExitCode::found,
                      std::string("no memory for a picture: ") + std::strerror(errno));
    }
    return file;
}

class SpawnActions {
  public:
    SpawnActions() { ::posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    void read_from(int fd) { ::posix_spawn_file_actions_adddup2(&actions_, fd, STDIN_FILENO); }
    [[nodiscard]] const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

}  // namespace

void draw(const std::string& file, const std::string& commands) {
    const eas::UniqueFd script = memory_file("set terminal " + terminal_for(file) +
                                             "\nset output " + plot_text(file) + '\n' + commands);
    SpawnActions actions;
    actions.read_from(script.get());
    std::array<char, 8> program{"gnuplot"};
    std::array<char, 2> from_standard_input{"-"};
    std::array<char*, 3> arguments{program.data(), from_standard_input.data(), nullptr};
    pid_t child = -1;
    const int error =
        ::posix_spawnp(&child, program.data(), actions.get(), nullptr, arguments.data(), environ);
    if (error != 0) {
        throw Failure(ExitCode::found,
                      std::string("gnuplot cannot be run: ") + std::strerror(error),
                      "install it: apt install gnuplot-nox");
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw Failure(ExitCode::found, file + ": gnuplot could not draw it",
                      "its own message is above; is the folder there and writable?");
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
