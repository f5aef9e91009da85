#include "common/model/TagKey.h"

#include <tuple>

#include "common/model/EnergyTag.h"

namespace eas {

TagKey TagKey::of(const EnergyTag& tag) {
    return {tag.cluster_name(), tag.energy_tag_name(), tag.user_name(), tag.default_frequency()};
}

bool TagKey::operator==(const TagKey& other) const {
    return default_frequency == other.default_frequency && name == other.name &&
           user == other.user && cluster == other.cluster;
}

bool TagKey::operator<(const TagKey& other) const {
    return std::tie(default_frequency, name, user, cluster) <
           std::tie(other.default_frequency, other.name, other.user, other.cluster);
}

}  // namespace eas
