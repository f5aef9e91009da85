// The record of a run in a text that anybody may have written around it, and the state of a job.
#include "adapters/job/RunRecord.h"
#include "adapters/job/JobRecord.h"
#include "fuzz/Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = eas::fuzz::text_of(data, size);
    eas::job::parse_record(text);
    const auto record = eas::job::find_record(text);
    if (!record)
        return 0;
    const std::string line = to_text(*record);
    // What was read is written so that it reads the same, wherever it is put.
    const auto again = eas::job::find_record(line);
    eas::fuzz::check(again && to_text(*again) == line, "a record reads as it was written");
    const auto replaced = eas::job::find_record(with_record(text, *record));
    eas::fuzz::check(replaced && to_text(*replaced) == line, "and replaces the one before it");
    return 0;
}
