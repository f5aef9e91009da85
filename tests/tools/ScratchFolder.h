// A folder for the length of a test.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace eas::test {

class ScratchFolder {
  public:
    ScratchFolder() {
        std::string name = std::filesystem::temp_directory_path() / "easctl.XXXXXX";
        if (::mkdtemp(name.data()) == nullptr)
            throw std::filesystem::filesystem_error("no scratch folder", {});
        folder_ = name;
    }
    ~ScratchFolder() { std::filesystem::remove_all(folder_); }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    [[nodiscard]] std::string path(const char* name) const { return folder_ / name; }

  private:
    std::filesystem::path folder_;
};

}  // namespace eas::test
