#include "common/node/ProcessorModel.h"

#include <algorithm>

namespace eas {

const ProcessorModel* find_model(int model) noexcept {
    const auto* found = std::find_if(processor_models.begin(), processor_models.end(),
                                     [model](const auto& row) { return row.model == model; });
    return found == processor_models.end() ? nullptr : found;
}

MemoryMethod memory_method(int model) noexcept {
    const ProcessorModel* found = find_model(model);
    return found == nullptr ? MemoryMethod::none : found->memory;
}

}  // namespace eas
