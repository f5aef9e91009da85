#include "interface/TagIndex.h"

#include <utility>

namespace eas {

TagIndex::TagIndex(std::vector<EnergyTag>& tags) : tags_(tags), positions_(ByKey{tags}) {
    for (std::size_t i = 0; i < tags_.size(); ++i)
        positions_.insert(i);
}

EnergyTag* TagIndex::find(const TagKey& key) {
    const std::size_t next = latest_ + 1 < tags_.size() ? latest_ + 1 : 0;
    for (const std::size_t likely : {latest_, next}) {
        if (is_at(likely, key))
            return &tags_[latest_ = likely];
    }
    const auto found = positions_.find(key);
    return found != positions_.end() ? &tags_[latest_ = *found] : nullptr;
}

EnergyTag& TagIndex::append(EnergyTag&& tag) {
    tags_.push_back(std::move(tag));
    latest_ = tags_.size() - 1;
    positions_.insert(latest_);
    return tags_.back();
}

}  // namespace eas
