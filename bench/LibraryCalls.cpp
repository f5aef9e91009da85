#include "bench/LibraryCalls.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "bench/Contest.h"

namespace eas::bench {
namespace {

void expect(int status, const char* call) {
    if (status != 0)
        throw std::runtime_error(std::string(call) + " gave " + std::to_string(status));
}

std::string folder() {
    return std::getenv("ODBCINI_FOLDER");
}

}  // namespace

void library_initialise() {
    expect(eas_initialize(text(model_cluster), default_frequency, text(folder() + threshold_file)),
           "eas_initialize");
}

std::size_t handed_out(const energyPolicyTag_t& tag) {
    const auto rows = static_cast<std::size_t>(tag.num_freq);
    return sizeof tag + rows * (2 * sizeof(int32_t) + 3 * sizeof(double)) +
           std::strlen(tag.energy_tag_name) + std::strlen(tag.job_id) + std::strlen(tag.user_name) +
           std::strlen(tag.cluster_name) + 4;
}

void free_tags(energyPolicyTag_t* tags, int count) {
    for (int i = 0; i < count; ++i) {
        for (char* name :
             {tags[i].energy_tag_name, tags[i].job_id, tags[i].user_name, tags[i].cluster_name})
            std::free(name);
        std::free(tags[i].frequencies);
        std::free(tags[i].predict_elapse_time);
        for (double* values :
             {tags[i].predict_power, tags[i].energy_saving_pct, tags[i].perf_degrad_pct})
            std::free(values);
    }
    std::free(tags);
}

double library_query(const Which& which, int expected) {
    int count = 0;
    energyPolicyTag_t* tags = nullptr;
    const double time = timed([&] {
        expect(eas_query_tag(text(which.cluster), default_frequency, text(which.user),
                             text(which.tag), &count, &tags),
               "eas_query_tag");
    });
    free_tags(tags, count);
    expect(count - expected, "number of tags");
    return time;
}

void library_select(const Which& which) {
    int frequency = 0;
    double change = 0;
    expect(eas_auto_select_frequency(text(which.cluster), default_frequency, text(which.user),
                                     text(which.tag), text("minimize_energy"), &frequency, &change),
           "eas_auto_select_frequency");
}

void library_generate(const Which& which) {
    std::array<double, 3> counters{2e14, 1e14, 5e12};
    expect(eas_generate_tag(text(which.cluster), default_frequency, text(which.user),
                            text(which.tag), counters.data(), text("1234567.0"), 1000, 300.0),
           "eas_generate_tag");
}

void library_remove(const Which& which) {
    int count = 0;
    char** users = nullptr;
    char** names = nullptr;
    expect(eas_remove_tag(text(which.cluster), default_frequency, text(which.user), text(which.tag),
                          &count, &users, &names),
           "eas_remove_tag");
    for (int i = 0; i < count; ++i) {
        std::free(users[i]);
        std::free(names[i]);
    }
    std::free(users);
    std::free(names);
    expect(count - 1, "removed tags");
}

}  // namespace eas::bench
