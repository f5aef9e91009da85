// The files that answer as devices do: model-specific registers (8 bytes wide, 1 apart), cpufreq
// attributes (a store replaces the value and may be refused), event counters, the energy meter.
#define FUSE_USE_VERSION 35
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/fakenode/NodeServer.h"

namespace eas::fake {
namespace {

using Lock = std::lock_guard<std::mutex>;

NodeServer& server() {
    return *static_cast<NodeServer*>(fuse_get_context()->private_data);
}
// ---- paths ----

enum class Kind { none, folder, msr, counter, tree };

struct Entry {
    Kind kind = Kind::none;
    int index = 0;
    TreeEntry* file = nullptr;
};

constexpr std::string_view node_root = "/node";

Entry find_msr(const char* path) {
    Entry entry;
    std::array<char, 8> name{};
    const int parts = std::sscanf(path, "/msr/%d/%7s", &entry.index, name.data());
    if (parts < 1 || !server().shape.old_model)
        return {};
    if (entry.index < 0 || entry.index >= server().shape.cpus()) {
        ++server().state.stray_lookups;
        return {};
    }
    const bool device =
        std::strcmp(name.data(), "msr") == 0 && server().state.msr_device != MsrDevice::missing;
    entry.kind = parts == 1 ? Kind::folder : device ? Kind::msr : Kind::none;
    return entry;
}

Entry find(const char* path) {
    const std::string_view text = path;
    Entry entry;
    if (text.substr(0, node_root.size()) == node_root) {
        entry.file = server().root.find(text.substr(node_root.size()));
        entry.kind = entry.file != nullptr ? Kind::tree : Kind::none;
    } else if (text == "/" || text == "/msr" || text == "/counter") {
        entry.kind = Kind::folder;
    } else if (std::sscanf(path, "/counter/%d", &entry.index) == 1) {
        entry.kind = Kind::counter;
    } else {
        return find_msr(path);
    }
    return entry;
}

mode_t type_of(const TreeEntry& entry) {
    constexpr mode_t types[] = {S_IFDIR, S_IFREG, S_IFLNK};
    return types[static_cast<int>(entry.kind)];
}

int get_attributes(const char* path, struct stat* out, fuse_file_info*) {
    const Lock lock(server().mutex);
    const Entry entry = find(path);
    *out = {};
    out->st_nlink = 1;
    out->st_size = std::string_view(path).rfind("/node/proc", 0) == 0 ? 0 : 4096;
    if (entry.kind == Kind::tree) {
        out->st_mode = type_of(*entry.file) | entry.file->mode;
        for (const auto& child : entry.file->children)  // a folder has a link from each one in it
            out->st_nlink += child.second->kind == TreeEntry::Kind::folder;
    } else if (entry.kind == Kind::folder)
        out->st_mode = S_IFDIR | 0755;
    else
        out->st_mode = S_IFREG | (entry.kind == Kind::msr ? 0600 : 0644);
    return entry.kind == Kind::none ? -ENOENT : 0;
}

int read_link(const char* path, char* buf, size_t size) {
    const Lock lock(server().mutex);
    const Entry entry = find(path);
    if (entry.file == nullptr || entry.file->kind != TreeEntry::Kind::link)
        return -EINVAL;
    buf[entry.file->text.copy(buf, size - 1)] = '\0';
    return 0;
}

int read_folder(const char* path, void* buf, fuse_fill_dir_t fill, off_t, fuse_file_info*,
                fuse_readdir_flags) {
    const Lock lock(server().mutex);
    const Entry entry = find(path);
    if (entry.kind == Kind::none)
        return -ENOENT;
    for (const char* name : {".", ".."})
        fill(buf, name, nullptr, 0, {});
    if (entry.file != nullptr)
        for (const auto& [name, child] : entry.file->children) {
            struct stat attributes {};
            attributes.st_mode = type_of(*child);
            fill(buf, name.c_str(), &attributes, 0, {});
        }
    return 0;
}

/// Permission as a file's text wishes it; the others were checked by the kernel.
int open_file(const char* path, fuse_file_info* info) {
    const Lock lock(server().mutex);
    info->direct_io = 1;  // every read and write arrives here, at its own offset and length
    const Entry entry = find(path);
    if (entry.kind != Kind::tree)
        return entry.kind == Kind::none ? -ENOENT : 0;
    // Of the kernel's attributes, root too opens for writing only those that can be written.
    const bool writes = (info->flags & O_ACCMODE) != O_RDONLY;
    if (writes && (entry.file->mode & 0222) == 0 && !server().shape.old_model)
        return -EACCES;
    if ((info->flags & O_TRUNC) != 0 && !entry.file->store)
        entry.file->text.clear();
    const int refusal = refusal_of(entry.file->text);
    return refusal == EACCES || refusal == EPERM ? -refusal : 0;
}

// What is done to the node from inside it: files made, taken away, given other rights.

int make_entry(const char* path, TreeEntry::Kind kind, mode_t mode) {
    const Lock lock(server().mutex);
    const std::string_view text = path;
    if (text.substr(0, node_root.size()) != node_root)
        return -EACCES;
    server().root.make(text.substr(node_root.size()), kind).mode = mode & 07777;
    return 0;
}

int remove_entry(const char* path) {
    const Lock lock(server().mutex);
    const std::string_view text = path;
    const size_t slash = text.rfind('/');
    if (find(path).kind != Kind::tree)
        return -EACCES;
    auto& siblings =
        server().root.find(text.substr(node_root.size(), slash - node_root.size()))->children;
    const auto found = siblings.find(text.substr(slash + 1));
    if (!found->second->children.empty())
        return -ENOTEMPTY;
    siblings.erase(found);
    return 0;
}

int change_mode(const char* path, mode_t mode, fuse_file_info*) {
    const Lock lock(server().mutex);
    const Entry entry = find(path);
    if (entry.kind != Kind::tree)
        return -EACCES;
    entry.file->mode = mode & 07777;
    return 0;
}

int truncate_file(const char* path, off_t size, fuse_file_info*) {
    const Lock lock(server().mutex);
    const Entry entry = find(path);
    if (entry.kind == Kind::tree && !entry.file->store)
        entry.file->text.resize(static_cast<size_t>(size));
    return 0;
}

// ---- reads and writes ----

void log_access(int cpu, off_t reg, bool write, uint64_t value) {
    server().state.msr_log.add({cpu, static_cast<uint32_t>(reg), write, value,
                                server().affinity_of(fuse_get_context()->pid)});
}

int read_msr(int cpu, char* buf, size_t size, off_t reg) {
    if (size % sizeof(uint64_t) != 0)
        return -EINVAL;
    const uint64_t* value = server().state.find_msr(cpu, static_cast<uint32_t>(reg));
    log_access(cpu, reg, false, value != nullptr ? *value : 0);
    if (value == nullptr)
        return -EIO;
    const size_t length = server().state.msr_device == MsrDevice::short_reads ? 4 : sizeof *value;
    const uint64_t seen = *value | server().state.msr_stray_bits;
    std::memcpy(buf, &seen, length);
    return static_cast<int>(length);
}

int write_msr(int cpu, const char* buf, size_t size, off_t reg) {
    if (size != sizeof(uint64_t))
        return -EINVAL;
    uint64_t value = 0;
    std::memcpy(&value, buf, sizeof value);
    log_access(cpu, reg, true, value);
    return server().state.set_msr(cpu, static_cast<uint32_t>(reg), value) ? 8 : -EIO;
}

int read_counter(int number, char* buf, size_t size) {
    const std::vector<uint64_t> words = server().events.words(number);
    const size_t length = words.size() * sizeof words[0];
    if (size < length)
        return -ENOSPC;
    std::memcpy(buf, words.data(), length);
    return static_cast<int>(length);
}

int close_file(const char* path, fuse_file_info*) {
    const Lock lock(server().mutex);
    if (const Entry entry = find(path); entry.kind == Kind::counter)
        server().events.close(entry.index);
    return 0;
}

int control_counter(const char* path, unsigned request, void*, fuse_file_info*, unsigned, void*) {
    const Lock lock(server().mutex);
    server().advance();
    const bool on = request == PERF_EVENT_IOC_ENABLE;
    const Entry entry = find(path);
    if (entry.kind != Kind::counter || (!on && request != PERF_EVENT_IOC_DISABLE))
        return -ENOTTY;
    return server().events.switch_on(entry.index, on) ? 0 : -EINVAL;
}

int read_text(const std::string& text, char* buf, size_t size, off_t offset) {
    if (const int refusal = refusal_of(text))
        return -refusal;
    const size_t from = std::min(static_cast<size_t>(offset), text.size());
    const size_t length = std::min(size, text.size() - from);
    std::memcpy(buf, text.data() + from, length);
    return static_cast<int>(length);
}

int read_file(const char* path, char* buf, size_t size, off_t offset, fuse_file_info*) {
    const Lock lock(server().mutex);
    const Entry entry = find(path);
    if (entry.kind == Kind::counter)
        server().advance_for(static_cast<uint64_t>(entry.index));
    else if (entry.kind != Kind::tree)
        server().advance();
    else if (offset == 0)
        server().advance_for(reinterpret_cast<uint64_t>(entry.file));
    switch (entry.kind) {
        case Kind::msr:
            return read_msr(entry.index, buf, size, offset);
        case Kind::tree:
            return read_text(entry.file->show ? entry.file->show() : entry.file->text, buf, size,
                             offset);
        case Kind::counter:
            return read_counter(entry.index, buf, size);
        default:
            return -EISDIR;
    }
}

int write_file(const char* path, const char* buf, size_t size, off_t offset, fuse_file_info*) {
    const Lock lock(server().mutex);
    server().advance();
    const Entry entry = find(path);
    if (entry.kind == Kind::msr)
        return write_msr(entry.index, buf, size, offset);
    if (entry.kind != Kind::tree)
        return -EINVAL;
    if (entry.file->store) {
        const int refused = entry.file->store(std::string(buf, size));
        return refused != 0 ? refused : static_cast<int>(size);
    }
    std::string& text = entry.file->text;
    text.resize(std::max(text.size(), static_cast<size_t>(offset) + size));
    text.replace(static_cast<size_t>(offset), size, buf, size);
    entry.file->show = nullptr;
    return static_cast<int>(size);
}

void* start(fuse_conn_info*, fuse_config* config) {
    // The kernel may keep what it found: whatever it then opens is looked for here once more.
    config->attr_timeout = config->entry_timeout = 60;
    config->negative_timeout = 0;
    return fuse_get_context()->private_data;
}

}  // namespace

::fuse* mount_files(NodeServer& node, const std::string& mount_point) {
    fuse_operations calls{};
    calls.init = start;
    calls.getattr = get_attributes;
    calls.readlink = read_link;
    calls.readdir = read_folder;
    calls.mkdir = [](const char* path, mode_t mode) {
        return make_entry(path, TreeEntry::Kind::folder, mode);
    };
    calls.create = [](const char* path, mode_t mode, fuse_file_info* info) {
        info->direct_io = 1;
        return make_entry(path, TreeEntry::Kind::file, mode);
    };
    calls.unlink = remove_entry;
    calls.rmdir = remove_entry;
    calls.chmod = change_mode;
    calls.open = open_file;
    calls.truncate = truncate_file;
    calls.release = close_file;
    calls.ioctl = control_counter;
    calls.read = read_file;
    calls.write = write_file;
    std::string name = "fakenode", option = "-o";
    std::string options = "allow_other,default_permissions,fsname=fakenode";
    std::array<char*, 3> words = {name.data(), option.data(), options.data()};
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(words.size()), words.data());
    ::fuse* files = fuse_new(&args, &calls, sizeof calls, &node);
    fuse_opt_free_args(&args);
    if (files != nullptr && fuse_mount(files, mount_point.c_str()) != 0) {
        fuse_destroy(files);
        return nullptr;
    }
    return files;
}

void serve_files(::fuse* files) {
    fuse_loop(files);
}

}  // namespace eas::fake
