#include "tools/easctl/cli/Findings.h"

#include <algorithm>
#include <utility>
#include "tools/easctl/cli/Json.h"

namespace easctl {

void Findings::error(std::string where, std::string text, std::string hint) {
    all_.push_back({Severity::error, std::move(where), std::move(text), std::move(hint)});
}

void Findings::warning(std::string where, std::string text, std::string hint) {
    all_.push_back({Severity::warning, std::move(where), std::move(text), std::move(hint)});
}

bool Findings::has_errors() const {
    return std::any_of(all_.begin(), all_.end(),
                       [](const Finding& one) { return one.severity == Severity::error; });
}

std::string Findings::text(bool colored) const {
    std::string out;
    for (const Finding& one : all_) {
        const bool bad = one.severity == Severity::error;
        out += printable(one.place) + ": ";
        out += paint(bad ? "error" : "warning", bad ? Style::bad : Style::warning, colored);
        out += ": " + printable(one.text) + '\n';
        if (!one.hint.empty())
            out += "    " + printable(one.hint) + '\n';
    }
    return out;
}

Json Findings::json() const {
    Json list = Json::array();
    for (const Finding& one : all_) {
        Json item{{"severity", one.severity == Severity::error ? "error" : "warning"},
                  {"place", one.place},
                  {"message", one.text}};
        if (!one.hint.empty())
            item["hint"] = one.hint;
        list.push_back(std::move(item));
    }
    return list;
}

std::string Findings::errors_as_message() const {
    std::string message;
    for (const Finding& one : all_) {
        if (one.severity == Severity::error)
            message += (message.empty() ? "" : "\n") + one.place + ": " + one.text +
                       (one.hint.empty() ? "" : " (" + one.hint + ")");
    }
    return message;
}

std::string place(const std::string& file, int line) {
    return file + ':' + std::to_string(line);
}

}  // namespace easctl
