#include "tools/easctl/cli/Link.h"

#include <algorithm>
#include <cerrno>
#include "tools/easctl/cli/Json.h"

namespace easctl {
namespace {

struct Shown {
    const char* text;
    Style style;
};

Shown shown(LinkStatus status) {
    switch (status) {
        case LinkStatus::ok:
            return {"ok", Style::good};
        case LinkStatus::warning:
            return {"warning", Style::warning};
        case LinkStatus::missing:
            return {"missing", Style::bad};
        case LinkStatus::denied:
            return {"denied", Style::bad};
        case LinkStatus::wrong:
            return {"wrong", Style::bad};
        case LinkStatus::skipped:
            return {"skipped", Style::faint};
    }
    return {"", Style::plain};
}

}  // namespace

const char* name_of(LinkStatus status) noexcept {
    return shown(status).text;
}

Link identified(LinkId id, Link link) {
    link.id = id;
    return link;
}

bool is_broken(const Link& link) {
    return link.status == LinkStatus::missing || link.status == LinkStatus::denied ||
           link.status == LinkStatus::wrong;
}

bool holds(const Link& link) {
    return !is_broken(link) && link.status != LinkStatus::skipped;
}

std::string text_of(const std::vector<Link>& links, bool colored) {
    std::string out;
    for (const Link& link : links) {
        const auto [text, style] = shown(link.status);
        std::string status(text);
        status.resize(8, ' ');
        out += paint(status, style, colored) + printable(link.name) + ": " + printable(link.found) +
               '\n';
        if (!link.meaning.empty())
            out += "          that means: " + printable(link.meaning) + '\n';
        if (!link.remedy.empty())
            out += "          what to do: " + printable(link.remedy) + '\n';
    }
    return out;
}

Json json_of(const std::vector<Link>& links) {
    Json list = Json::array();
    for (const Link& link : links) {
        Json one{{"name", link.name}, {"status", shown(link.status).text}, {"found", link.found}};
        if (!link.meaning.empty())
            one["meaning"] = link.meaning;
        if (!link.remedy.empty())
            one["remedy"] = link.remedy;
        list.push_back(std::move(one));
    }
    return {{"ok", std::all_of(links.begin(), links.end(), holds)}, {"links", list}};
}

LinkStatus status_of(int error) {
    return error == EACCES || error == EPERM ? LinkStatus::denied : LinkStatus::missing;
}

}  // namespace easctl
