// fake-node [options] -- COMMAND: runs a command inside a fake node; exit status is the command's.
#include <getopt.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "tests/support/fakenode/FakeNode.h"

using namespace eas::fake;

namespace {

const char* const help =
    "usage: fake-node [--shape NAME | --model NUMBER] [--workload FILE] -- COMMAND...\n\n"
    "Runs a command on a node that this machine is not.\n\n"
    "--shape     name of a shape, or path of one or of an archive\n"
    "--model     processor model, decimal (45)\n"
    "--workload  file of lines: kHz, watts, cycles per instruction, memory lines per\n"
    "            instruction (counted on models 26 to 44)\n";

/// Without the name of a shape a node of the old kind.
struct Given {
    std::string shape;
    std::string workload;
    int model = 0;
};

/// True when there is a command to be run, from optind on.
bool read_options(int argc, char** argv, Given& given) {
    const option options[] = {{"shape", required_argument, nullptr, 's'},
                              {"model", required_argument, nullptr, 'm'},
                              {"workload", required_argument, nullptr, 'w'},
                              {}};
    for (int kind; (kind = ::getopt_long(argc, argv, "+", options, nullptr)) != -1;) {
        if (kind == 's')
            given.shape = optarg;
        else if (kind == 'm')
            given.model = std::stoi(optarg);
        else if (kind == 'w')
            given.workload = optarg;
        else
            return false;
    }
    return optind < argc && (given.shape.empty() || given.model == 0);
}

NodeShape shape_of(const Given& given) {
    NodeShape shape = given.shape.empty() ? NodeShape() : read_shape(given.shape);
    if (given.model > 0)
        shape.model = given.model;
    if (!given.workload.empty())
        shape.workload = read_workload(given.workload);
    if (shape.cpus() > max_cpus)
        throw std::runtime_error("more CPUs than a fake node can have");
    return shape;
}

}  // namespace

int main(int argc, char** argv) try {
    Given given;
    if (!read_options(argc, argv, given)) {
        std::fputs(help, stderr);
        return 2;
    }
    return FakeNode(shape_of(given), NodeOptions{!given.shape.empty(), 0}).exec(argv + optind);
} catch (const std::exception& error) {
    std::fprintf(stderr, "fake-node: %s\n", error.what());
    return 2;
}
