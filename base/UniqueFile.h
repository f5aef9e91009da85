// Owner of a stdio stream. Any thread may use its own; an instance is not shared.
#pragma once

#include <cstdio>
#include <memory>

#include "base/CancelState.h"

namespace eas {

struct FileCloser {
    void operator()(std::FILE* file) const noexcept {
        const DeferCancellation until_closed;
        std::fclose(file);
    }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

/// Opens `path` for reading, closed on exec. Null after a failure, or when `path` is null.
[[nodiscard]] inline UniqueFile open_for_reading(const char* path) {
    return UniqueFile(path != nullptr ? std::fopen(path, "re") : nullptr);
}

}  // namespace eas
