// fake-node [options] -- COMMAND: runs a command inside a fake node; exit status is the command's.
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tests/support/fakenode/FakeNode.h"

using namespace eas::fake;

int main(int argc, char** argv) {
    CLI::App app{"Runs a command on a node that this machine is not.", "fake-node"};
    NodeShape shape;
    std::string name, workload;
    std::vector<std::string> command;
    CLI::Option* const shaped =
        app.add_option("--shape", name, "name of a shape, or path of one or of an archive");
    app.add_option("--workload", workload,
                   "file of lines: kHz, watts, cycles per instruction, memory lines per "
                   "instruction (counted on models 26 to 44)");
    app.add_option("--model", shape.model, "processor model, decimal")
        ->capture_default_str()
        ->excludes(shaped);
    app.add_option("--sockets", shape.sockets)
        ->check(CLI::Range(1, 4))
        ->capture_default_str()
        ->excludes(shaped);
    app.add_option("--cores", shape.cores, "per socket")
        ->check(CLI::Range(1, 64))
        ->excludes(shaped);
    app.add_option("--threads", shape.threads, "per core")
        ->check(CLI::Range(1, 2))
        ->excludes(shaped);
    app.add_option("--frequencies", shape.frequencies, "kHz, highest first")
        ->delimiter(',')
        ->excludes(shaped);
    app.add_option("command", command)->required();
    CLI11_PARSE(app, argc, argv);
    try {
        if (!name.empty())
            shape = read_shape(name);
        if (!workload.empty())
            shape.workload = read_workload(workload);
        if (shape.cpus() > max_cpus)
            throw std::runtime_error("more CPUs than a fake node can have");
        std::vector<char*> words;
        for (std::string& word : command)
            words.push_back(word.data());
        words.push_back(nullptr);
        return FakeNode(shape, NodeOptions{!name.empty(), 0}).exec(words.data());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fake-node: %s\n", error.what());
        return 2;
    }
}
