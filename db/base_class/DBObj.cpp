#include "db/base_class/DBObj.h"

Obj::~Obj() = default;

// The indicator slots stay as they are: the driver writes those that are read.
DBObj::DBObj() noexcept {}  // NOLINT(modernize-use-equals-default)

std::string DBObj::getDeleteStatement(bool /*bykey*/) {
    return {};
}

std::string DBObj::getInsertStatement() {
    return {};
}

std::string DBObj::getUpdateStatement(bool /*bykey*/) {
    return {};
}

std::string DBObj::getSelectStatement(bool /*bykey*/) {
    return {};
}
