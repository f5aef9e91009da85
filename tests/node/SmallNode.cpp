#include "tests/node/SmallNode.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

namespace eas::test {

void put(NodeShape& shape, const std::string& path, const std::string& text) {
    shape.files.push_back({path.substr(1), fake::TreeEntry::Kind::file, 0644, text + "\n"});
}

std::string policy_file(int policy, const char* name) {
    return cpu_folder + "cpufreq/policy" + std::to_string(policy) + "/" + name;
}

NodeShape small_node(const std::string& name) {
    NodeShape shape = fake::read_shape(name);
    const int clocks = name == "epyc2019" || name == "pm-counters" ? 4 : 8;
    shape.sockets = shape.threads = 2;
    shape.cores = 2;
    std::vector<fake::ShapeFile> files;
    for (fake::ShapeFile& file : shape.files) {
        int number = 0;
        const char* const path = file.path.c_str();
        const bool of_cpu = std::sscanf(path, "sys/devices/system/cpu/cpu%d/", &number) == 1;
        if (std::sscanf(path, "sys/devices/system/cpu/cpufreq/policy%d/", &number) == 1
                ? number >= clocks
                : of_cpu && (number >= 8 || file.kind == fake::TreeEntry::Kind::link))
            continue;
        const std::string leaf = file.path.substr(file.path.rfind('/') + 1);
        if (clocks == 4 && (leaf == "related_cpus" || leaf == "affected_cpus"))
            file.text = std::to_string(number) + " " + std::to_string(number + 4) + "\n";
        files.push_back(file);
    }
    shape.files = files;
    put(shape, cpu_folder + "possible", "0-7");
    if (name == "hybrid")  // one small core
        put(shape, policy_file(7, "base_frequency"), "1800000");
    return shape;
}

namespace {

void change(const std::string& path, const std::string& text) {
    if (text.empty()) {
        std::filesystem::remove(path);
        return;
    }
    std::filesystem::permissions(path, std::filesystem::perms(0644));
    std::ofstream(path) << text << std::flush;
}

void run_block(const std::vector<std::string>& lines,
               const std::function<std::string(FakeNode&, const std::string&)>& command) {
    SCOPED_TRACE(lines[0]);
    NodeShape shape = small_node(lines[0].substr(3));
    shape.workload.clear();
    const auto sign = [&lines](size_t i) { return lines[i].find(" ="); };
    const auto text = [&](size_t i) {
        return lines[i].substr(std::min(lines[i].size(), sign(i) + 3));
    };
    size_t at = 1;
    for (; lines[at][0] == '/'; ++at)
        for (const char number : std::string_view("01234567")) {
            std::string path = lines[at].substr(0, sign(at));
            std::replace(path.begin(), path.end(), '*', number);
            const auto is_it = [&](const auto& file) { return "/" + file.path == path; };
            auto& files = shape.files;
            files.erase(std::remove_if(files.begin(), files.end(), is_it), files.end());
            if (!text(at).empty())
                put(shape, path, text(at));
        }
    FakeNode node(shape);
    inside(node, [&] {
        for (; at < lines.size(); ++at) {
            const std::string& line = lines[at];
            if (line[0] == '/') {
                change(line.substr(0, sign(at)), text(at));
                continue;
            }
            const std::string given = command(node, line);
            EXPECT_EQ(lines.at(++at), given) << line;
        }
        command(node, "end");
    });
}

}  // namespace

void replay(const std::string& transcript,
            const std::function<std::string(FakeNode&, const std::string& line)>& command) {
    std::ifstream file(transcript);
    ASSERT_TRUE(file) << transcript;
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line) || !lines.empty(); line.clear()) {
        if (!line.empty() && line[0] != '#')
            lines.push_back(line);
        if (!line.empty() || lines.empty())
            continue;
        run_block(lines, command);
        lines.clear();
    }
}

}  // namespace eas::test
