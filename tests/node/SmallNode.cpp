#include "tests/node/SmallNode.h"

#include <cstdio>
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
    const int clocks = name == "epyc2019" ? 4 : 8;
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

}  // namespace eas::test
