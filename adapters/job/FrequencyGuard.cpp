#include "adapters/job/FrequencyGuard.h"

#include <memory>
#include <stdexcept>

namespace eas::job {
namespace {

easnode_problem no_problem() {
    easnode_problem problem{};
    problem.size = sizeof problem;
    return problem;
}

[[noreturn]] void fail(const NodeLibrary& library, int code, const easnode_problem& problem) {
    const std::string where = problem.path[0] != '\0' ? problem.path + std::string(": ") : "";
    throw std::runtime_error(where +
                             (problem.text[0] != '\0' ? problem.text : library.error_text(code)));
}

using Handle = std::unique_ptr<easnode_frequency, decltype(&::easnode_frequency_close)>;

Handle open_all_cpus(const NodeLibrary& library) {
    easnode_problem problem = no_problem();
    easnode_frequency* opened = nullptr;
    const int code = library.frequency_open(nullptr, &opened, &problem);
    if (code != EASNODE_OK)
        fail(library, code, problem);
    return {opened, library.frequency_close};
}

}  // namespace

void set_frequency(const NodeLibrary& library, const StateFolder& folder, uint32_t job,
                   int frequency) {
    const Handle handle = open_all_cpus(library);
    easnode_problem problem = no_problem();
    std::string text(EASNODE_FREQUENCY_TEXT_SIZE, '\0');
    size_t length = 0;
    int code = library.frequency_save(handle.get(), frequency, text.data(), text.size(), &length,
                                      &problem);
    if (code != EASNODE_OK)
        fail(library, code, problem);
    folder.append(job, line::settings(text.substr(0, length)));
    code = library.frequency_set(handle.get(), frequency, &problem);
    if (code != EASNODE_OK)
        fail(library, code, problem);
}

std::string restore(const SiteSettings& settings, const std::string& text) {
    const NodeLibrary library(settings.node_library);
    easnode_problem problem = no_problem();
    switch (const int code =
                library.frequency_restore(nullptr, text.data(), text.size(), &problem)) {
        case EASNODE_OK:
        case EASNODE_OTHER_NODE:  // a boot ago: the settings went with it
            return "";
        case EASNODE_MOVED:
            return "another program had changed it";
        default:
            fail(library, code, problem);
    }
}

void give_up_frequency(const SiteSettings& settings, const StateFolder& folder,
                       const JobRecord& record, const std::string& why) {
    folder.append(record.request.job, line::disturbed(why));
    if (record.settings.empty())
        return;
    restore(settings, record.settings);
    folder.append(record.request.job, line::given_back());
}

}  // namespace eas::job
