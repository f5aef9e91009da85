#include "adapters/job/JobRecord.h"

#include <sstream>

namespace eas::job {

namespace line {

std::string request(const JobRequest& request) {
    std::ostringstream out;
    out << "job " << request.job << ' ' << request.user;
    if (!request.tag.empty())
        out << ' ' << request.tag << ' ' << request.policy;
    out << (request.observed ? "\nobserved\n" : "\n");
    return out.str();
}

std::string place(const JobPlace& place) {
    return "place " + std::to_string(place.nodes) + ' ' + place.node + ' ' + place.first + ' ' +
           place.type + '\n';
}

std::string plan(const RunRecord& plan) {
    return "plan " + to_text(plan) + '\n';
}

std::string settings(const std::string& text) {
    std::string out;
    std::istringstream lines(text);
    for (std::string one; std::getline(lines, one);)
        out += "saved " + one + '\n';
    return out;
}

std::string given_back() {
    return "given-back\n";
}

std::string figures(const RunRecord& figures) {
    return "figures " + to_text(figures) + '\n';
}

std::string run(const RunRecord& run) {
    return "run " + to_text(run) + '\n';
}

std::string disturbed(const std::string& reason) {
    return "disturbed " + reason + '\n';
}

}  // namespace line

namespace {

void follow(const std::string& text, JobRecord& record) {
    std::istringstream words(text);
    std::string name, rest;
    words >> name;
    if (name == "job") {
        words >> record.request.job >> record.request.user >> record.request.tag >>
            record.request.policy;
        return;
    }
    if (name == "place") {
        words >> record.place.nodes >> record.place.node >> record.place.first >> record.place.type;
        return;
    }
    words.get();
    std::getline(words, rest);
    if (name == "observed")
        record.request.observed = true;
    else if (name == "plan")
        record.plan = find_record(rest);
    else if (name == "saved")
        record.settings += rest + '\n';
    else if (name == "given-back")
        record.settings.clear();
    else if (name == "figures")
        record.figures = find_record(rest);
    else if (name == "run")
        record.run = find_record(rest);
    else if (name == "disturbed")
        record.disturbed = rest;
}

}  // namespace

JobRecord parse_record(const std::string& text) {
    JobRecord record;
    std::istringstream lines(text);
    for (std::string one; std::getline(lines, one);)
        follow(one, record);
    return record;
}

}  // namespace eas::job
