#include "tools/easctl/job/FolderScheduler.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "adapters/job/StateFolder.h"

namespace easctl {
namespace {

namespace fs = std::filesystem;
using eas::job::RunRecord;

constexpr const char* plan_name = "plan";
const std::string report_prefix = "node-";

/// Written whole or not at all: a node that looks meanwhile finds the former text or the new one.
void write_record(const fs::path& path, const std::string& node, const RunRecord& record) {
    fs::path part = path;
    part += "." + node + ".part";
    {
        std::ofstream file(part, std::ios::trunc);
        file << to_text(record) << '\n';
        if (!file.flush())
            throw std::runtime_error(part.string() + " cannot be written");
    }
    fs::rename(part, path);
}

std::optional<RunRecord> read_record(const fs::path& path) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line))
        return std::nullopt;
    return eas::job::find_record(line);
}

}  // namespace

std::string FolderScheduler::folder() const {
    if (facts_.share.empty())
        throw std::runtime_error(
            "a job of several nodes needs --share, a folder that they all see");
    const eas::job::StateFolder trusted(facts_.share);
    return facts_.share + "/run-" + facts_.run;
}

bool FolderScheduler::job_is_over(std::uint32_t job) {
    return !facts_.running ||
           std::find(facts_.running->begin(), facts_.running->end(), job) == facts_.running->end();
}

void FolderScheduler::announce(std::uint32_t, const RunRecord& plan) {
    const fs::path own = folder();
    fs::create_directory(own);
    write_record(own / plan_name, facts_.node, plan);
}

std::optional<RunRecord> FolderScheduler::announced(std::uint32_t) {
    return read_record(folder() + "/" + plan_name);
}

// Where the first node has already forgotten the run, a late node's figures have no reader.
void FolderScheduler::report(std::uint32_t, const RunRecord& figures) {
    write_record(folder() + "/" + report_prefix + facts_.node, facts_.node, figures);
}

std::vector<eas::job::NodeReport> FolderScheduler::reports(std::uint32_t) {
    std::vector<eas::job::NodeReport> all;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder())) {
        const std::string name = entry.path().filename();
        if (name.compare(0, report_prefix.size(), report_prefix) != 0 ||
            entry.path().extension() == ".part")
            continue;
        if (std::optional<RunRecord> figures = read_record(entry.path()))
            all.push_back({name.substr(report_prefix.size()), std::move(*figures)});
    }
    return all;
}

void FolderScheduler::keep(std::uint32_t, const RunRecord&) {
    throw std::runtime_error("this scheduler's accounting is not known: set record=file");
}

void FolderScheduler::forget() const {
    if (!facts_.share.empty())
        fs::remove_all(folder());
}

}  // namespace easctl
