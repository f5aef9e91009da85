// Groups rows into tags at a cost that grows with the rows, in whatever order they come and
// whatever names users chose: the index is ordered, since names can be made to collide in a hash.
#pragma once

#include <cstddef>
#include <set>
#include <vector>

#include "common/model/EnergyTag.h"
#include "common/model/TagKey.h"

namespace eas {

class TagIndex {
  public:
    /// Indexes what `tags` holds, no two of the same key; new tags go to its end. It must outlive
    /// the index.
    explicit TagIndex(std::vector<EnergyTag>& tags);

    /// The tag of that key, or null. Valid until the next append.
    [[nodiscard]] EnergyTag* find(const TagKey& key);

    /// Appends `tag`, whose key is not there yet, and returns where it stands until the next
    /// append.
    EnergyTag& append(EnergyTag&& tag);

  private:
    /// Orders positions by the keys of the tags that stand there.
    struct ByKey {
        using is_transparent = void;
        const std::vector<EnergyTag>& tags;

        [[nodiscard]] TagKey key(std::size_t position) const { return TagKey::of(tags[position]); }
        bool operator()(std::size_t a, std::size_t b) const { return key(a) < key(b); }
        bool operator()(std::size_t a, const TagKey& b) const { return key(a) < b; }
        bool operator()(const TagKey& a, std::size_t b) const { return a < key(b); }
    };

    [[nodiscard]] bool is_at(std::size_t position, const TagKey& key) const {
        return position < tags_.size() && key == TagKey::of(tags_[position]);
    }

    std::vector<EnergyTag>& tags_;
    std::set<std::size_t, ByKey> positions_;
    std::size_t latest_ = 0;  // rows mostly come tag by tag, or tag after tag for each frequency
};

}  // namespace eas
