#include "interface/TagIndex.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace eas {

namespace {

std::size_t mix(std::size_t seed, std::size_t value) {
    return seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 6U) + (seed >> 2U));
}

TagKey key_of(const EnergyTag& tag) {
    return {tag.cluster_name(), tag.energy_tag_name(), tag.user_name(), tag.default_frequency()};
}

}  // namespace

bool TagKey::identifies(const EnergyTag& tag) const {
    return default_frequency == tag.default_frequency() && name == tag.energy_tag_name() &&
           user == tag.user_name() && cluster == tag.cluster_name();
}

std::size_t TagKey::hash() const {
    const std::hash<std::string_view> of_text;
    std::size_t result = of_text(name);
    result = mix(result, of_text(user));
    result = mix(result, of_text(cluster));
    return mix(result, std::hash<int>()(default_frequency));
}

TagIndex::TagIndex(std::vector<EnergyTag>& tags) : tags_(tags) {
    for (std::size_t i = 0; i < tags_.size(); ++i)
        insert(key_of(tags_[i]).hash(), i);
}

EnergyTag* TagIndex::find(const TagKey& key) {
    if (latest_ < tags_.size() && key.identifies(tags_[latest_]))
        return &tags_[latest_];
    const auto [begin, end] = positions_.equal_range(key.hash());
    std::size_t first = tags_.size();
    for (auto it = begin; it != end; ++it) {
        if (key.identifies(tags_[it->second]))
            first = std::min(first, it->second);
    }
    if (first == tags_.size())
        return nullptr;
    latest_ = first;
    return &tags_[first];
}

EnergyTag& TagIndex::append(const TagKey& key, EnergyTag&& tag) {
    tags_.push_back(std::move(tag));
    latest_ = tags_.size() - 1;
    insert(key.hash(), latest_);
    return tags_.back();
}

}  // namespace eas
