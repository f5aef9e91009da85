#include "tools/easctl/history/Run.h"

namespace easctl {

std::optional<double> Run::when() const {
    if (end)
        return end;
    return start && seconds ? std::optional(*start + *seconds) : start;
}

std::optional<double> Run::watts() const {
    if (!is_measured())
        return std::nullopt;
    return *joules / *seconds / (nodes && *nodes > 0.0 ? *nodes : 1.0);
}

}  // namespace easctl
