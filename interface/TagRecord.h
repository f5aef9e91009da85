// Between a tag in memory and the record that a scheduler owns.
#pragma once

#include <vector>

#include "interface/interface.h"

class EnergyTag;

/// Copies `etag` into `*tag`, each text and array into a block of malloc(3).
/// Returns 0, or -1 when there is no record or the tag has no rows (the record is untouched), or
/// when an array cannot be allocated (the record then owns the blocks that could be). A text that
/// cannot be duplicated is null and no failure.
int fill_tag_struct(const EnergyTag& etag, energyPolicyTag* tag);

/// Frees the blocks of the first `count` records, not the records' own array. Pointers are not
/// cleared.
void free_tag_struct(energyPolicyTag* tags, int count);

namespace eas {

/// Owner of what answers a query: the records, and the block that they stand in.
class TagRecords {
  public:
    TagRecords() noexcept = default;
    ~TagRecords();
    TagRecords(const TagRecords&) = delete;
    TagRecords& operator=(const TagRecords&) = delete;

    /// Makes one record of each tag, once; false when memory is short, which the debug log says.
    /// Each tag is emptied once its record stands: only one is in memory twice, not all.
    [[nodiscard]] bool fill(std::vector<EnergyTag>& tags);
    /// Hands the records over to the caller.
    void hand_out(int& count, energyPolicyTag_t*& records) noexcept;

    // Where eas_query_tag writes its answer.
    [[nodiscard]] int* count() noexcept { return &count_; }
    [[nodiscard]] energyPolicyTag_t** records() noexcept { return &records_; }

    [[nodiscard]] const energyPolicyTag_t* begin() const noexcept { return records_; }
    [[nodiscard]] const energyPolicyTag_t* end() const noexcept { return records_ + count_; }

  private:
    energyPolicyTag_t* records_ = nullptr;
    int count_ = 0;
};

}  // namespace eas
