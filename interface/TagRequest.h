// What tags a call asks for, and the condition that says so to the database. Names are put into it
// verbatim; the functions that send it refuse names that would change it.
#pragma once

#include <string>
#include <string_view>

#include "interface/TagIndex.h"

/// The condition text for tags, beginning with " where "; empty when nothing restricts it.
std::string format_condition(const std::string& cluster_name, int default_frequency,
                             const std::string& user_name, const std::string& tag_name);

namespace eas {

/// An empty name matches all.
struct TagRequest {
    std::string cluster;
    int default_frequency;  // kHz
    std::string user;
    std::string tag;

    [[nodiscard]] std::string condition() const {
        return format_condition(cluster, default_frequency, user, tag);
    }
    /// Whether every name keeps the meaning of the condition.
    [[nodiscard]] bool is_safe() const;
    /// Whether a row with this key was asked for. Others come where the database reads the
    /// condition in another sense: an engine may take a quoted name for a column, or compare
    /// without case.
    [[nodiscard]] bool asked_for(const TagKey& row) const;
};

/// Whether `name` keeps the meaning of a condition that it is put into between double quotes.
[[nodiscard]] bool is_safe_in_condition(std::string_view name);

/// Whether a row's field may answer for `name`: a field that is empty, and a name that was not
/// asked for, say nothing against it.
[[nodiscard]] bool bears(std::string_view field, std::string_view name);

}  // namespace eas
