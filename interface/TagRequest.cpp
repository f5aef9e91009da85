#include "interface/TagRequest.h"

#include "base/Numbers.h"

std::string format_condition(const std::string& cluster_name, int default_frequency,
                             const std::string& user_name, const std::string& tag_name) {
    std::string text = " where ";
    const std::size_t empty_length = text.size();
    const auto append_name = [&text](std::string_view column, const std::string& name) {
        if (!name.empty())
            text.append(column).append("=\"").append(name).append("\" and ");
    };
    append_name("cluster_name", cluster_name);
    append_name("user_name", user_name);
    if (default_frequency > 0)
        text.append("default_frequency=").append(eas::decimal(default_frequency)).append(" and ");
    append_name("energy_tag_name", tag_name);
    if (text.size() == empty_length)
        return {};
    text.erase(text.size() - std::string_view(" and ").size());
    return text;
}

namespace eas {

bool TagRequest::is_safe() const {
    return is_safe_in_condition(cluster) && is_safe_in_condition(user) && is_safe_in_condition(tag);
}

bool TagRequest::asked_for(const TagKey& row) const {
    return bears(row.cluster, cluster) && bears(row.user, user) && bears(row.name, tag);
}

bool is_safe_in_condition(std::string_view name) {
    if (name.find('"') != std::string_view::npos)
        return false;
    const std::size_t last = name.find_last_not_of('\\');
    const std::size_t backslashes = name.size() - (last == std::string_view::npos ? 0 : last + 1);
    return backslashes % 2 == 0;
}

bool bears(std::string_view field, std::string_view name) {
    return field.empty() || name.empty() || field == name;
}

}  // namespace eas
