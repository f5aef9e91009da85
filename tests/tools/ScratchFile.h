// A text file for one test.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace eas::test {

class ScratchFile {
  public:
    explicit ScratchFile(const std::string& text) {
        std::ofstream(path_, std::ios::binary) << text;
    }
    ~ScratchFile() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string text() const {
        std::ifstream in(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

  private:
    static inline int count_ = 0;
    std::string path_ =
        std::filesystem::temp_directory_path() /
        ("easctl-test." + std::to_string(::getpid()) + '.' + std::to_string(++count_));
};

}  // namespace eas::test
