#include "tools/easctl/tag/ReturnCodes.h"

#include <array>
#include <optional>

#include "interface/interface.h"

namespace easctl {

namespace {

struct Code {
    std::optional<Function> function;  // no value: means the same from the functions not named
    int code;
    const char* name;
    const char* meaning;
    const char* advice;
};

// The first row that fits counts.
constexpr std::array codes{
    Code{Function::initialize, EAS_BAD_ARGUMENT, "EAS_BAD_ARGUMENT",
         "the default frequency is below 1 kHz", "give --default-frequency in kHz"},
    Code{Function::initialize, EAS_NO_CONNECTION, "EAS_NO_CONNECTION",
         "no driver manager, or no connection to the database", "easctl doctor"},
    Code{Function::initialize, EAS_NO_COEFFICIENTS, "EAS_NO_COEFFICIENTS",
         "no coefficients are readable for this cluster and default frequency",
         "easctl model list shows what is stored, easctl model import stores a model"},
    Code{Function::initialize, EAS_BAD_THRESHOLD_FILE, "EAS_BAD_THRESHOLD_FILE",
         "the threshold file is not valid", "easctl thresholds check FILE names the line"},
    Code{Function::initialize, EAS_THRESHOLDS_COMMENTED_OUT, "EAS_THRESHOLDS_COMMENTED_OUT",
         "the threshold file is missing, or has no entry that is not a comment",
         "check the path given by --thresholds or EASCTL_THRESHOLDS"},
    Code{Function::generate_tag, EAS_BAD_ARGUMENT, "EAS_BAD_ARGUMENT",
         "a name is empty, time or power is not above 0, or the stored coefficients have another "
         "default frequency",
         "check the figures; easctl model show prints the default frequency"},
    Code{Function::generate_tag, EAS_TAG_NOT_AVAILABLE, "EAS_TAG_NOT_AVAILABLE",
         "the figures allow no prediction: a counter is 0, or a predicted power or time is not "
         "above 0",
         "check the counters of the job, and the coefficients with easctl model show"},
    Code{Function::generate_tag, EAS_STORE_FAILED, "EAS_STORE_FAILED",
         "the database refused the tag; nothing of it is stored",
         "easctl db check; the account must be allowed to insert"},
    Code{Function::generate_tag, EAS_TAG_EXISTS, "EAS_TAG_EXISTS",
         "the user has a tag of this name already for this cluster and default frequency",
         "easctl tag show prints it, easctl tag remove removes it"},
    Code{Function::query_tag, EAS_QUERY_FAILED, "EAS_QUERY_FAILED",
         "the query failed: a name holds a double quote, ends in a backslash or is compared by the "
         "database as something else, or the tags cannot be read",
         "check the names, then easctl db check"},
    Code{Function::remove_tag, EAS_REMOVE_FAILED, "EAS_REMOVE_FAILED",
         "the removal failed; nothing was removed",
         "the account must be allowed to delete; a name must not hold a double quote"},
    Code{Function::auto_select_frequency, EAS_BAD_ARGUMENT, "EAS_BAD_ARGUMENT",
         "the policy is not known", "minimize_energy or minimize_time"},
    Code{Function::auto_select_frequency, EAS_NO_UNIQUE_TAG, "EAS_NO_UNIQUE_TAG",
         "not exactly one such tag", "easctl tag list shows the tags that there are"},
    Code{{}, EAS_BAD_ARGUMENT, "EAS_BAD_ARGUMENT", "an argument is out of range", ""},
    Code{{},
         EAS_NO_CONNECTION,
         "EAS_NO_CONNECTION",
         "no connection to the database",
         "easctl doctor"},
    Code{{}, EAS_NOT_INITIALIZED, "EAS_NOT_INITIALIZED", "the library is not initialised", ""},
};

// In the order of Function.
constexpr std::array function_names{"eas_initialize", "eas_generate_tag", "eas_query_tag",
                                    "eas_remove_tag", "eas_auto_select_frequency"};

}  // namespace

Failure refusal(Function function, int code, const std::string& what, const std::string& said) {
    Code found{{}, code, "an unknown code", "this tool knows no such code", ""};
    for (const Code& row : codes) {
        if (row.code == code && row.function.value_or(function) == function) {
            found = row;
            break;
        }
    }
    std::string message = what.empty() ? "" : what + ": ";
    message += std::string(found.meaning) + " (" +
               function_names[static_cast<std::size_t>(function)] + " returned " +
               std::to_string(code) + ", " + found.name + ")";
    if (!said.empty())
        message += ": " + said;
    return {code == EAS_NO_CONNECTION ? ExitCode::database : ExitCode::refused, message,
            found.advice};
}

}  // namespace easctl
