// FrequencyGuard.h - fixes the frequency of a node's CPUs, and gives back what was set before. What
// it was is written down before anything changes; the caller keeps the text, so that another
// process can give it back. kHz. Needs root; errors are std::runtime_error.
#pragma once

#include <string>

#include "adapters/job/EasLibrary.h"
#include "adapters/job/JobRecord.h"
#include "adapters/job/StateFolder.h"

namespace eas::job {

/// Notes the settings in the job's record, then fixes every CPU; throws when one does not take it.
void set_frequency(const NodeLibrary& library, const StateFolder& folder, uint32_t job,
                   int frequency);

/// Gives back what the text says; what is worth telling of it, or an empty text.
std::string restore(const SiteSettings& settings, const std::string& text);

/// Sets the node back before the job's end, and notes in its record that it ran otherwise, and why.
void give_up_frequency(const SiteSettings& settings, const StateFolder& folder,
                       const JobRecord& record, const std::string& why);

}  // namespace eas::job
