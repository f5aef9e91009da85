// Which frequency a job runs at.
#include <array>
#include <cstdio>
#include <stdexcept>

#include "adapters/job/EasLibrary.h"
#include "adapters/job/JobOnNode.h"
#include "adapters/job/UserName.h"

namespace eas::job {
namespace {

std::string percent(double change) {
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), "%+.1f %%", change * 100);
    return text.data();
}

void measure(RunRecord& plan, std::string& why) {
    plan.frequency = plan.default_frequency;
    why = "measuring for tag \"" + plan.tag + "\" at " +
          std::to_string(static_cast<int>(*plan.frequency)) + " kHz";
}

void use(RunRecord& plan, const std::string& policy, const EasLibrary::Choice& choice,
         std::string& why) {
    plan.policy = policy;
    plan.frequency = choice.frequency;
    why = policy + " of tag \"" + plan.tag + "\": " + std::to_string(choice.frequency) +
          " kHz, run time expected to change by " + percent(choice.change);
}

}  // namespace

RunRecord make_plan(const SiteSettings& settings, const JobRequest& request, std::string& why) {
    RunRecord plan;
    plan.tag = request.tag;
    plan.type = settings.type;
    if (settings.default_frequency > 0)
        plan.default_frequency = settings.default_frequency;
    if (request.purpose() == Purpose::observe) {
        why = "observed, nothing is set";
        return plan;
    }
    if (!plan.default_frequency)
        throw std::runtime_error("no default_frequency is configured");
    if (request.purpose() == Purpose::measure) {
        measure(plan, why);
        return plan;
    }
    const std::string user = user_name(request.user);
    const auto choice = EasLibrary(settings).select(user, request.tag, request.policy);
    if (choice)
        use(plan, request.policy, *choice, why);
    else
        measure(plan, why);
    return plan;
}

}  // namespace eas::job
