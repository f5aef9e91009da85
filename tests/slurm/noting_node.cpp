// A node library without a node, for what a job's adapter asks of one: X.so notes its calls in
// X.calls beside itself, answers a call by the code in X.NAME, and has other figures as b.so.
#include <dlfcn.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "node/node.h"

struct easnode_meter {};
struct easnode_frequency {};

namespace {

std::filesystem::path beside(const char* extension) {
    Dl_info own{};
    ::dladdr(reinterpret_cast<void*>(&easnode_error_text), &own);
    return std::filesystem::path(own.dli_fname).replace_extension(extension);
}

int noted(const char* name, const std::string& call, easnode_problem* problem = nullptr) {
    std::ofstream(beside("calls"), std::ios::app) << call << '\n';
    int code = EASNODE_OK;
    std::ifstream(beside(name)) >> code;
    if (code != EASNODE_OK && problem != nullptr)
        std::snprintf(problem->path, sizeof problem->path, "of_%s", name);
    return code;
}

}  // namespace

int easnode_frequency_open(const char* cpus, easnode_frequency** frequency, easnode_problem*) {
    static easnode_frequency only;
    *frequency = &only;
    return noted("open", cpus == nullptr ? "all" : cpus);
}
void easnode_frequency_close(easnode_frequency*) {}
int easnode_frequency_save(const easnode_frequency*, int32_t khz, char* text, size_t capacity,
                           size_t* length, easnode_problem*) {
    *length = std::string("former\n settings\n").copy(text, capacity);
    return noted("save", "save " + std::to_string(khz));
}
int easnode_frequency_set(easnode_frequency*, int32_t khz, easnode_problem* problem) {
    return noted("set", "set " + std::to_string(khz), problem);
}
int easnode_frequency_restore(easnode_frequency*, const char* text, size_t length,
                              easnode_problem*) {
    return noted("restore", "restore " + std::string(text, length));
}
int easnode_meter_open(const easnode_meter_options* options, easnode_meter** meter) {
    static easnode_meter only;
    *meter = &only;
    return noted("meter", options->energy_sources);
}
int easnode_meter_read(easnode_meter*, easnode_reading* now) {
    const int more = beside("").stem() == "b" ? 1 : 0;
    int extent = EASNODE_PACKAGES;
    std::ifstream(beside("extent")) >> extent;
    now->time_ns = more != 0 ? 999'800'000'000 : 999'600'000'000;
    now->cycles = {1.9e12 + more * 2e11, EASNODE_COUNTED, EASNODE_NODE, 0, "perf", "", "", {}};
    now->instructions = {9e11 + more * 2e11, EASNODE_SCALED, EASNODE_NODE, 0, "perf", "", "", {}};
    now->memory = {
        2.8e12 + more * 4e11, EASNODE_COUNTED, EASNODE_NODE, 9'000'000'000, "imc", "", "", {}};
    now->energy = {
        189943.0 + more * 19994, EASNODE_COUNTED, extent, 100'000'000, "fake", "", "", {}};
    int missing = 4;
    std::ifstream(beside("missing")) >> missing;
    easnode_figure* const all[] = {&now->energy, &now->cycles, &now->instructions, &now->memory};
    for (int i = missing; i < 4; ++i) {
        all[i]->quality = EASNODE_MISSING;
        std::snprintf(all[i]->reason, sizeof all[i]->reason, "why %d", i);
    }
    return noted("read", "read");
}
void easnode_meter_close(easnode_meter*) {}
const char* easnode_error_text(int code) {
    return code == EASNODE_NOT_OFFERED ? "not offered" : "another failure";
}
