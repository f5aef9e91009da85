// A handle of the library's frequencies in a test, and what other programs of the node do.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "node/node.h"

namespace eas::test {

struct Closer {
    void operator()(easnode_frequency* frequency) const { easnode_frequency_close(frequency); }
};

/// The frequencies of some CPUs; `problem` is that of the last call.
struct Frequency {
    explicit Frequency(const char* cpus = nullptr) {
        easnode_frequency* made = nullptr;
        problem.size = sizeof problem;
        code = easnode_frequency_open(cpus, &made, &problem);
        handle.reset(made);
    }
    int set(int khz) { return easnode_frequency_set(handle.get(), khz, &problem); }
    std::string save(int khz = 0) {
        std::string text(EASNODE_FREQUENCY_TEXT_SIZE, '\0');
        size_t length = 0;
        EXPECT_EQ(EASNODE_OK, easnode_frequency_save(handle.get(), khz, text.data(), text.size(),
                                                     &length, &problem));
        return text.substr(0, length);
    }
    int restore(const std::string& text) {
        return easnode_frequency_restore(handle.get(), text.data(), text.size(), &problem);
    }
    easnode_frequency_info info() {
        easnode_frequency_info info{};
        info.size = sizeof info;
        EXPECT_EQ(EASNODE_OK, easnode_frequency_describe(handle.get(), &info));
        return info;
    }
    std::vector<easnode_step> steps() {
        std::vector<easnode_step> found(1000);
        size_t count = 0;
        EXPECT_EQ(EASNODE_OK,
                  easnode_frequency_steps(handle.get(), found.data(), found.size(), &count));
        found.resize(count);
        return found;
    }
    std::vector<easnode_cpu_frequency> rows() {
        std::vector<easnode_cpu_frequency> found(1024);
        size_t count = 0;
        EXPECT_EQ(EASNODE_OK,
                  easnode_frequency_read(handle.get(), found.data(), found.size(), &count));
        found.resize(count);
        return found;
    }

    std::unique_ptr<easnode_frequency, Closer> handle;
    easnode_problem problem{};
    int code;
};

/// One write(2), as other programs of the node make it.
inline void store(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    out << text << std::flush;
    EXPECT_TRUE(out.good()) << path;
}

}  // namespace eas::test
