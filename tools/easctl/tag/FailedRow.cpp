#include "tools/easctl/tag/FailedRow.h"

#include "tools/easctl/cli/Json.h"

namespace easctl {

std::string FailedRow::text() const {
    return printable(place + ": " + failure.message);
}

Json FailedRow::json() const {
    const auto name = [](const std::string& text) {
        return text.empty() ? Json(nullptr) : Json(text);
    };
    Json json{{"place", place},
              {"user", name(names.user)},
              {"tag", name(names.tag)},
              {"message", failure.message}};
    if (!failure.hint.empty())
        json["hint"] = failure.hint;
    return json;
}

}  // namespace easctl
