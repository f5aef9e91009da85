// Groups rows into tags at a cost that grows linearly with the rows, in whatever order they come.
#pragma once

#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/EnergyTag.h"

namespace eas {

/// What identifies a tag: rows with the same key are rows of one tag.
struct TagKey {
    std::string_view cluster;
    std::string_view name;
    std::string_view user;
    int default_frequency;  // KHz

    [[nodiscard]] bool identifies(const EnergyTag& tag) const;
    [[nodiscard]] std::size_t hash() const;
};

class TagIndex {
  public:
    /// Indexes what `tags` holds, no two of the same key; new tags go to its end. It must outlive
    /// the index.
    explicit TagIndex(std::vector<EnergyTag>& tags);

    /// The tag of that key, or null. Valid until the next append.
    [[nodiscard]] EnergyTag* find(const TagKey& key);

    /// Appends `tag`, whose key is `key`, and returns where it stands until the next append.
    EnergyTag& append(const TagKey& key, EnergyTag&& tag);

  private:
    void insert(std::size_t hash, std::size_t position) { positions_.emplace(hash, position); }

    [[nodiscard]] bool is_at(std::size_t position, const TagKey& key) const {
        return position < tags_.size() && key.identifies(tags_[position]);
    }

    std::vector<EnergyTag>& tags_;
    std::unordered_multimap<std::size_t, std::size_t> positions_;  // hash of a key -> tag
    std::size_t latest_ = 0;  // rows mostly come tag by tag, or tag after tag for each frequency
};

}  // namespace eas
