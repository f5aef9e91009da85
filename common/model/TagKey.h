// What identifies a tag: rows with the same key are rows of one tag.
#pragma once

#include <string_view>

class EnergyTag;

namespace eas {

/// Refers to texts of somebody else's, which must outlive it.
struct TagKey {
    std::string_view cluster;
    std::string_view name;
    std::string_view user;
    int default_frequency;  // kHz

    [[nodiscard]] static TagKey of(const EnergyTag& tag);
    [[nodiscard]] bool operator==(const TagKey& other) const;
    [[nodiscard]] bool operator<(const TagKey& other) const;
};

}  // namespace eas
