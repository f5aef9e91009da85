#include "interface/TagIndex.h"

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
    const std::size_t next = latest_ + 1 < tags_.size() ? latest_ + 1 : 0;
    for (const std::size_t likely : {latest_, next}) {
        if (is_at(likely, key))
            return &tags_[latest_ = likely];
    }
    const auto [begin, end] = positions_.equal_range(key.hash());
    for (auto it = begin; it != end; ++it) {
        if (is_at(it->second, key))
            return &tags_[latest_ = it->second];
    }
    return nullptr;
}

EnergyTag& TagIndex::append(const TagKey& key, EnergyTag&& tag) {
    tags_.push_back(std::move(tag));
    latest_ = tags_.size() - 1;
    insert(key.hash(), latest_);
    return tags_.back();
}

}  // namespace eas
