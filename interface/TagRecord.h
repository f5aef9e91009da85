// Between a tag in memory and the record that a scheduler owns.
#pragma once

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
