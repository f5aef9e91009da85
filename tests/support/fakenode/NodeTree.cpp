#include "tests/support/fakenode/NodeTree.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace eas::fake {

TreeEntry* TreeEntry::child(std::string_view name) {
    const auto found = children.find(name);
    return found == children.end() ? nullptr : found->second.get();
}

TreeEntry* TreeEntry::find(std::string_view path) {
    TreeEntry* entry = this;
    while (entry != nullptr && !path.empty()) {
        const std::string_view name = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(path.size(), name.size() + 1));
        if (!name.empty())
            entry = entry->child(name);
    }
    return entry;
}

TreeEntry& TreeEntry::make(std::string_view path, Kind wanted) {
    const size_t slash = path.rfind('/');
    const std::string_view parent = slash == path.npos ? "" : path.substr(0, slash);
    TreeEntry* folder = find(parent);
    if (folder == nullptr)
        folder = &make(parent, Kind::folder);
    auto& slot = folder->children[std::string(path.substr(slash == path.npos ? 0 : slash + 1))];
    if (slot == nullptr || slot->kind != wanted) {
        slot = std::make_unique<TreeEntry>();
        slot->kind = wanted;
    }
    return *slot;
}

TreeEntry& TreeEntry::put(std::string_view path, std::string content, mode_t rights) {
    TreeEntry& file = make(path, Kind::file);
    file.text = std::move(content);
    file.mode = rights;
    return file;
}

std::string TreeEntry::value(std::string_view path, const std::string& otherwise) {
    TreeEntry* file = find(path);
    if (file == nullptr || file->kind != Kind::file)
        return otherwise;
    return file->text.substr(0, file->text.find('\n'));
}

long long TreeEntry::number(std::string_view path, long long otherwise) {
    const std::string digits = value(path);
    return digits.empty() ? otherwise : std::strtoll(digits.c_str(), nullptr, 10);
}

void TreeEntry::attach(std::string_view path, std::function<std::string()> shown,
                       std::function<int(const std::string&)> stored) {
    TreeEntry* file = find(path);
    if (file == nullptr || file->kind != Kind::file || refusal_of(file->text) != 0)
        return;
    file->show = std::move(shown);
    file->store = std::move(stored);
    if (file->store)
        file->mode |= 0200;
}

void TreeEntry::each(std::string_view path, std::string_view prefix,
                     const std::function<void(const std::string&, TreeEntry&)>& visit) {
    TreeEntry* folder = find(path);
    if (folder == nullptr)
        return;
    for (auto& [name, entry] : folder->children)
        if (entry->kind != Kind::file && name.compare(0, prefix.size(), prefix) == 0)
            visit(name, *entry);
}

void TreeEntry::each_file(const std::string& path,
                          const std::function<void(const std::string&)>& visit) {
    TreeEntry* folder = find(path);
    if (folder == nullptr)
        return;
    for (auto& [name, entry] : folder->children) {
        if (entry->kind == Kind::file)
            visit(path + "/" + name);
        each_file(path + "/" + name, visit);
    }
}

namespace {
constexpr std::pair<std::string_view, int> refusals[] = {
    {"!EACCES", EACCES}, {"!EPERM", EPERM}, {"!EIO", EIO},     {"!ENODATA", ENODATA},
    {"!ENODEV", ENODEV}, {"!EBUSY", EBUSY}, {"!ENXIO", ENXIO}, {"!EINVAL", EINVAL},
};
}  // namespace

int refusal_of(std::string_view text) {
    for (const auto& [name, number] : refusals)
        if (text.substr(0, text.find('\n')) == name)
            return number;
    return 0;
}

std::string refusal_text(const std::string& description) {
    for (const auto& [name, number] : refusals)
        if (description == std::strerror(number))
            return std::string(name);
    return "";
}

std::vector<int> cpu_list(const std::string& text) {
    std::vector<int> cpus;
    const char* at = text.c_str();
    while (*at != '\0' && *at != '\n') {
        char* end = nullptr;
        const long first = std::strtol(at, &end, 10);
        long last = first;
        if (*end == '-')
            last = std::strtol(end + 1, &end, 10);
        if (end == at || last < first)
            throw std::runtime_error("no list of CPUs: " + text);
        for (long cpu = first; cpu <= last; ++cpu)
            cpus.push_back(static_cast<int>(cpu));
        at = *end == ',' || *end == ' ' ? end + 1 : end;
        if (at == end && *end != '\0' && *end != '\n')
            throw std::runtime_error("no list of CPUs: " + text);
    }
    return cpus;
}

std::string list_text(const std::vector<int>& cpus) {
    std::string text;
    for (size_t i = 0; i < cpus.size(); ++i) {
        size_t last = i;
        while (last + 1 < cpus.size() && cpus[last + 1] == cpus[last] + 1)
            ++last;
        text += (text.empty() ? "" : ",") + std::to_string(cpus[i]);
        if (last > i)
            text += "-" + std::to_string(cpus[last]);
        i = last;
    }
    return text + "\n";
}

}  // namespace eas::fake
