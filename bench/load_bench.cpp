// Opening the library in a C process, and where the C++ runtime is loaded already, beside an empty
// C++ shared object. Each opening is a process of its own (load_child.c).
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>

#include "bench/Contest.h"

namespace eas::bench {
namespace {

struct Opening {
    double ns = 0;
    double kib = 0;
};

struct CloseProcess {
    void operator()(std::FILE* process) const { ::pclose(process); }
};

Opening open_in_child(const std::string& arguments) {
    const std::unique_ptr<std::FILE, CloseProcess> child(
        ::popen((EAS_LOAD_CHILD " " + arguments).c_str(), "re"));
    Opening opening;
    if (child == nullptr || std::fscanf(child.get(), "%lf %lf", &opening.ns, &opening.kib) != 2)
        throw std::runtime_error("load_child failed");
    return opening;
}

/// KiB of private memory that an opening took, by its arguments.
std::map<std::string, std::vector<double>> memory;

Work open(const std::string& arguments) {
    return [arguments] {
        const Opening opening = open_in_child(arguments);
        memory[arguments].push_back(opening.kib);
        return opening.ns;
    };
}

void add_opening(const std::string& name, double goal, const std::string& earlier) {
    const std::string library = EAS_LIBRARY + earlier;
    const std::string empty = EAS_EMPTY_LIBRARY + earlier;
    add({"dlopen " + name, goal, 200, 1, [=] {
             return std::vector<Contender>{{"library", open(library)}, {"empty", open(empty)}};
         }});
    add_row("private memory " + name, [=] {
        const double of_library = quantile(memory[library]);
        const double of_empty = quantile(memory[empty]);
        std::array<char, 120> row{};
        std::snprintf(row.data(), row.size(),
                      "%.0f KiB, an empty library %.0f KiB: %.0f more (goal: at most 48)",
                      of_library, of_empty, of_library - of_empty);
        return std::string(row.data());
    });
}

}  // namespace
}  // namespace eas::bench

int main(int argc, char** argv) {
    using namespace eas::bench;
    take_options(argc, argv);
    add_opening("in a C process", 1.15, "");
    add_opening("beside the C++ runtime", 1.75, " libstdc++.so.6");
    return run(argc, argv);
}
