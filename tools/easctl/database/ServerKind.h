// What answers at the other end of a MariaDB data source: one server or a node of a Galera cluster,
// in which state, and whether something stands between.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/easctl/cli/Findings.h"
#include "tools/easctl/database/Database.h"

namespace easctl {

struct ServerKind {
    std::map<std::string, std::string> settings;  ///< of the session, by their names in lower case
    std::map<std::string, std::string> status;    ///< of Galera
    std::vector<std::string> reached;  ///< the servers that several connections at once lead to
    std::string proxy;                 ///< why there must be one; empty: none seen

    [[nodiscard]] std::string setting(const std::string& name) const;
    [[nodiscard]] bool is(const std::string& name, const std::string& value) const;
    /// Part of a cluster, whether or not this session's changes reach it.
    [[nodiscard]] bool galera() const;
    [[nodiscard]] int nodes() const;
    /// A node that is alone, or joining, refuses what the library sends.
    [[nodiscard]] bool ready() const;
    /// Such as "Galera node db2 of 3, Synced, through a proxy".
    [[nodiscard]] std::string text() const;
};

/// Throws Failure.
ServerKind server_kind(Database& database);

/// What would lose tags, or hide them. Returns whether the server answers queries at all.
bool check_server(Database& database, Findings& findings);

}  // namespace easctl
