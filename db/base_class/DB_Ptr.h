// Owner of a connection, which is disconnected before it is destroyed.
#pragma once

#include <memory>

#include "db/base_class/DBConnection.h"

namespace eas {

struct Disconnect {
    void operator()(DBConnection* con) const {
        const std::unique_ptr<DBConnection> owned(con);
        owned->disconnect();
    }
};

}  // namespace eas

using DB_Ptr = std::unique_ptr<DBConnection, eas::Disconnect>;
