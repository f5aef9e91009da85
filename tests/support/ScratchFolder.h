// A folder, or a file in one, for the length of a test; and what stands in a file.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace eas::test {

class ScratchFolder {
  public:
    ScratchFolder() {
        std::string name = std::filesystem::temp_directory_path() / "eas-test.XXXXXX";
        if (::mkdtemp(name.data()) == nullptr)
            throw std::filesystem::filesystem_error("no scratch folder", {});
        path_ = name;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::string path(const char* name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

/// The whole of a file; empty when it cannot be read.
inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Makes a file that holds `text`, and the folders that it lies in.
inline void write_file(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    if (!out)
        throw std::filesystem::filesystem_error("not written", path, {});
}

/// A text file.
class ScratchFile {
  public:
    explicit ScratchFile(const std::string& text) {
        std::ofstream(path_, std::ios::binary) << text;
    }

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string text() const { return read_file(path_); }

  private:
    ScratchFolder folder_;
    std::string path_ = folder_.path("file");
};

}  // namespace eas::test
