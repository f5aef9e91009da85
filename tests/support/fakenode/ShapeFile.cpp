// Reads the files of `shapes/`, and archives of real nodes. A file's lines:
//
//   # comment
//   cpus SOCKETS CORES THREADS       makes online, topology and /proc/cpuinfo in the usual
//   numbering processor VENDOR FAMILY MODEL NAME... nominal KHZ, turbo KHZ           see NodeShape
//   workload KHZ WATTS CYCLES-PER-INSTRUCTION LINES-PER-INSTRUCTION
//   share WHAT FACTOR                package, dram, core, uncore, psys, node: of the workload's
//   watts count PMU CONFIG QUANTITY [FACTOR], slots PMU NUMBER, perf !ERRNO include FILE another
//   shape or an archive; later lines replace its files /folder/                         folder of
//   the indented lines that follow
//       NAME [MODE] = TEXT           a file; a newline is added, \n \t \s \0 are understood
//       NAME -> TARGET               a link
//   /path [MODE] = TEXT
//
// Braces in a path repeat the line: cpu{0-3,8}. What the first stands for is {n} in the rest of the
// path and in the text, the second's {m}; {n+112%7} calculates from left to right. A text of
// "!EACCES", or another errno, is a file that fails so.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "tests/support/ChildProcess.h"
#include "tests/support/ScratchFolder.h"
#include "tests/support/fakenode/NodeShape.h"

namespace eas::fake {
namespace {

namespace fs = std::filesystem;
using Kind = TreeEntry::Kind;

[[noreturn]] void bad(const std::string& what) {
    throw std::runtime_error(what);
}

/// "n+112%7" with the values of n and m.
int calculate(const std::string& expression, const std::vector<int>& values) {
    const size_t variable = expression.front() == 'm' ? 1 : 0;
    if (variable >= values.size())
        bad("no value for {" + expression + "}");
    int result = values[variable];
    std::istringstream rest(expression.substr(1));
    int operand = 0;
    for (char sign = 0; rest >> sign >> operand;) {
        if ((sign == '/' || sign == '%') && operand == 0)
            bad("division by 0 in {" + expression + "}");
        result = sign == '+'   ? result + operand
                 : sign == '-' ? result - operand
                 : sign == '*' ? result * operand
                 : sign == '/' ? result / operand
                               : result % operand;
    }
    return result;
}

std::string filled(std::string text, const std::vector<int>& values) {
    for (size_t open = 0; (open = text.find('{', open)) != text.npos;) {
        const size_t close = text.find('}', open);
        const std::string inside = text.substr(open + 1, close - open - 1);
        if (close == text.npos || (inside.front() != 'n' && inside.front() != 'm'))
            bad("braces in " + text);
        text.replace(open, close + 1 - open, std::to_string(calculate(inside, values)));
    }
    return text;
}

/// Calls `use(path, values)` for every path that `pattern` stands for.
void repeat(const std::string& pattern, std::vector<int>& values,
            const std::function<void(const std::string&)>& use) {
    size_t open = pattern.find('{');
    while (open != pattern.npos && std::isdigit(pattern[open + 1]) == 0)
        open = pattern.find('{', open + 1);
    if (open == pattern.npos)
        return use(filled(pattern, values));
    const size_t close = pattern.find('}', open);
    if (close == pattern.npos)
        bad("braces in " + pattern);
    for (const int value : cpu_list(pattern.substr(open + 1, close - open - 1))) {
        values.push_back(value);
        repeat(pattern.substr(0, open) + std::to_string(value) + pattern.substr(close + 1), values,
               use);
        values.pop_back();
    }
}

std::string unescaped(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool escape = text[i] == '\\' && i + 1 < text.size();
        const char next = escape ? text[++i] : text[i];
        result += !escape       ? next
                  : next == 'n' ? '\n'
                  : next == 't' ? '\t'
                  : next == 's' ? ' '
                                : '\0';
    }
    return result;
}

class Reader {
  public:
    explicit Reader(NodeShape& shape) : shape_(shape) {}

    void read(const fs::path& path) {
        if (path.extension() == ".gz")
            return unpack(path);
        std::ifstream in(path);
        if (!in)
            bad("cannot be read: " + path.string());
        std::string line;
        for (int number = 1; std::getline(in, line); ++number) {
            try {
                take(line, path);
            } catch (const std::exception& error) {
                bad(path.string() + ":" + std::to_string(number) + ": " + error.what());
            }
        }
    }

  private:
    void take(const std::string& line, const fs::path& path) {
        const size_t start = line.find_first_not_of(' ');
        if (start == line.npos || line[start] == '#')
            return;
        if (line.front() == '/' && line.back() == '/')
            folder_ = line;
        else if (line.front() == '/')
            take_file("", line);
        else if (start > 0)
            take_file(folder_, line.substr(start));
        else
            take_setting(line, path);
    }

    void take_file(const std::string& folder, const std::string& line) {
        const bool link = line.find(" -> ") != line.npos;
        const size_t sign = line.find(link ? " -> " : " =");
        if (sign == line.npos)
            bad("no ' = ' and no ' -> '");
        std::string name = line.substr(0, sign);
        mode_t mode = 0444;
        if (const size_t blank = name.find(' '); blank != name.npos) {
            mode = static_cast<mode_t>(std::stoi(name.substr(blank + 1), nullptr, 8));
            name.resize(blank);
        }
        const size_t from = std::min(line.size(), sign + (link ? 4 : 3));
        const std::string text = unescaped(line.substr(from)) + (link ? "" : "\n");
        std::vector<int> values;
        repeat(folder + name, values, [&](const std::string& path) {
            shape_.files.push_back(
                {path.substr(1), link ? Kind::link : Kind::file, mode, filled(text, values)});
        });
    }

    void take_setting(const std::string& line, const fs::path& path) {
        std::istringstream words(line);
        std::string key, name, code;
        words >> key;
        if (key == "cpus") {
            words >> shape_.sockets >> shape_.cores >> shape_.threads;
        } else if (key == "processor") {
            words >> shape_.vendor >> shape_.family >> shape_.model >> std::ws;
            std::getline(words, shape_.model_name);
        } else if (key == "nominal" || key == "turbo") {
            words >> (key == "turbo" ? shape_.turbo_khz : shape_.nominal_khz);
        } else if (key == "workload") {
            WorkloadRow row{};
            words >> row.khz >> row.watts >> row.cycles_per_instruction >>
                row.lines_per_instruction;
            shape_.workload.push_back(row);
        } else if (key == "share") {
            words >> name >> shape_.shares[name];
        } else if (key == "slots") {
            words >> name >> shape_.slots[name];
        } else if (key == "count") {
            take_count(words);
        } else if (key == "perf" && words >> name && refusal_of(name) != 0) {
            shape_.perf_refusal = refusal_of(name);
        } else if (key == "include" && words >> name) {
            Reader(shape_).read(path.parent_path() / name);
        } else {
            bad("no such setting: " + line);
        }
        if (words.fail())
            bad("incomplete: " + line);
    }

    void take_count(std::istream& words) {
        CountRule rule{{}, 0, {}, 1};
        std::string code, factor;
        words >> rule.pmu >> code >> rule.quantity;
        if (words.fail())
            return;
        rule.config = std::stoull(code, nullptr, 0);
        if (words >> factor)
            rule.factor = std::stod(factor);
        words.clear();
        shape_.counts.push_back(rule);
    }

    /// What an archive holds of /sys and /proc, and its list "PATH: REASON" of the unreadable.
    void unpack(const fs::path& archive) {
        const test::ScratchFolder folder;
        const pid_t child = ::fork();
        if (child == 0) {
            ::execlp("tar", "tar", "-xzf", archive.c_str(), "-C", folder.path().c_str(), nullptr);
            ::_exit(127);
        }
        if (test::exit_status(child) != 0)
            bad("no archive: " + archive.string());
        std::ifstream unreadable(folder.path("unreadable"));
        for (std::string line; std::getline(unreadable, line);) {
            const size_t colon = line.rfind(": ");
            const std::string text = refusal_text(line.substr(std::min(line.size(), colon + 2)));
            if (!text.empty())
                shape_.files.push_back({line.substr(1, colon - 1), Kind::file, 0444, text + "\n"});
        }
        const std::string cpuinfo = test::read_file(folder.path("proc/cpuinfo"));
        if (cpuinfo.find("AuthenticAMD") != cpuinfo.npos)
            shape_.vendor = "AuthenticAMD";
        for (const auto& item : fs::recursive_directory_iterator(folder.path())) {
            const std::string path = item.path().lexically_relative(folder.path());
            if (item.is_symlink())
                shape_.files.push_back({path, Kind::link, 0777, fs::read_symlink(item.path())});
            else if (item.is_regular_file())
                shape_.files.push_back({path, Kind::file,
                                        static_cast<mode_t>(item.status().permissions()),
                                        test::read_file(item.path())});
        }
    }

    NodeShape& shape_;
    std::string folder_;
};

}  // namespace

NodeShape read_shape(const std::string& name) {
    NodeShape shape;
    shape.old_model = false;
    shape.sockets = 0;
    shape.cores = shape.threads = 1;
    const bool path = name.find('/') != name.npos || name.find('.') != name.npos;
    const fs::path file = path ? name : EAS_SHAPES "/" + name + ".shape";
    Reader(shape).read(file);
    if (file.extension() == ".gz")
        Reader(shape).read(EAS_SHAPES "/archive.shape");
    return shape;
}

}  // namespace eas::fake
