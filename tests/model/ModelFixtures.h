// What the tests of the model share: coefficient sets, files with a given content, a decimal comma.
#pragma once

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "base/UniqueFile.h"
#include "common/model/CoEfficients.h"

namespace eas_test {

/// A set of these frequencies (kHz); the row of `default_frequency` is all zero.
inline CoEfficients make_set(const std::vector<int>& frequencies, int default_frequency) {
    CoEfficients set;
    for (const int f : frequencies) {
        const double one = f == default_frequency ? 0.0 : 1.0;
        set.setArrayData(f, one, 0.0, 0.0, one, 0.0, 0.0);
    }
    return set;
}

/// A nameless file that holds `content`, at its beginning.
inline eas::UniqueFile file_of(std::string_view content) {
    eas::UniqueFile file(std::tmpfile());
    std::fwrite(content.data(), 1, content.size(), file.get());
    std::rewind(file.get());
    return file;
}

/// Switches the process to a locale with a decimal comma, made for the test.
inline void use_decimal_comma() {
    std::string folder = testing::TempDir() + "/eas-locale-XXXXXX";
    ASSERT_NE(::mkdtemp(folder.data()), nullptr);
    const std::string make = "localedef -i de_DE -f ISO-8859-1 " + folder + "/de_DE";
    ASSERT_EQ(std::system(make.c_str()), 0);
    ::setenv("LOCPATH", folder.c_str(), 1);
    const char* name = std::setlocale(LC_ALL, "de_DE");
    const bool removed = std::system(("rm -r " + folder).c_str()) == 0;
    ASSERT_TRUE(removed && name != nullptr);
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
}

}  // namespace eas_test
