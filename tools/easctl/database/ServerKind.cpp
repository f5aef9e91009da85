#include "tools/easctl/database/ServerKind.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <set>

#include "tools/easctl/database/OdbcConfiguration.h"

namespace easctl {
namespace {

constexpr std::size_t connections_at_once = 4;
/// s; after a crash of the writer the others wait five seconds for it before they go on.
constexpr int shortest_read_timeout = 10;

using Texts = std::map<std::string, std::string>;

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// Names and values; SHOW is answered also by a node that refuses everything else.
Texts shown(Database& database, const std::string& statement) {
    Texts texts;
    for (const auto& row : database.run(statement))
        texts[lower(row.at(0).value_or(""))] = row.at(1).value_or("");
    return texts;
}

std::string address_of(const sockaddr* socket) {
    std::array<char, NI_MAXHOST> text{};
    const socklen_t length =
        socket->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    const bool known = socket->sa_family == AF_INET6 || socket->sa_family == AF_INET;
    if (!known ||
        ::getnameinfo(socket, length, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) != 0)
        return {};
    return text.data();
}

std::set<std::string> addresses_of_host(const std::string& host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
        return {};
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, ::freeaddrinfo);
    std::set<std::string> addresses;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next)
        addresses.insert(address_of(one->ai_addr));
    return addresses;
}

std::set<std::string> addresses_of_this_machine() {
    ifaddrs* found = nullptr;
    if (::getifaddrs(&found) != 0)
        return {};
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(found, ::freeifaddrs);
    std::set<std::string> addresses;
    for (const ifaddrs* one = found; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr != nullptr)
            addresses.insert(address_of(one->ifa_addr));
    }
    return addresses;
}

bool is_address(const std::string& text) {
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    return ::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1 ||
           ::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1;
}

/// What cannot be if the data source's server answers by itself; empty: nothing.
std::string sign_of_a_proxy(Database& database, const ServerKind& kind) {
    const OdbcConfiguration odbc;
    const auto value = [&](const char* key) { return odbc.value(database.dsn(), key, "odbc.ini"); };
    const std::string server = value("SERVER");
    if (server.empty() || !value("SOCKET").empty())
        return {};
    const std::string port = value("PORT").empty() ? "3306" : value("PORT");
    if (!kind.is("port", port))
        return "port " + port + " leads to port " + kind.setting("port");
    const std::string node = kind.setting("wsrep_node_address");
    const std::string address = node.substr(0, node.find(':'));
    if (kind.galera() && is_address(address) && addresses_of_host(server).count(address) == 0)
        return server + " leads to " + address;
    const auto rows = database.run("select substring_index(user(), '@', -1)");
    const std::string client = rows.empty() ? "" : rows[0].at(0).value_or("");
    if (is_address(client) && client.compare(0, 4, "127.") != 0 &&
        addresses_of_this_machine().count(client) == 0)
        return "the server is asked by " + client + ", which is not this machine";
    return {};
}

/// A setting with which tags are lost, or not found.
struct Danger {
    const char* name;
    const char* value;  ///< in lower case; the dangerous one
    bool only_galera;
    Severity severity;
    const char* text;
    const char* hint;
};

constexpr std::array<Danger, 8> dangers{{
    // Half of a tag would be read while another program stores it.
    {"tx_isolation", "read-uncommitted", false, Severity::error,
     "reads what is not committed: a tag that is half stored, or taken back, would be used",
     "transaction_isolation = REPEATABLE-READ, the server's default"},
    {"read_only", "on", false, Severity::error, "the server is read-only",
     "name the writing server in odbc.ini"},
    {"wsrep_on", "off", true, Severity::error,
     "this session's changes stay on the one node: the others never get its tags, and lose them "
     "when they take over",
     "wsrep_on = ON, and no SET wsrep_on in INITSTMT"},
    {"binlog_format", "statement", true, Severity::error,
     "changes reach the other nodes as statements, which Galera does not support",
     "binlog_format = ROW"},
    {"binlog_format", "mixed", true, Severity::error,
     "changes may reach the other nodes as statements, which Galera does not support",
     "binlog_format = ROW"},
    {"innodb_flush_log_at_trx_commit", "0", false, Severity::warning,
     "a crash of the server takes the tags of the last second with it",
     "innodb_flush_log_at_trx_commit = 1"},
    {"innodb_flush_log_at_trx_commit", "2", false, Severity::warning,
     "a power failure takes the tags of the last second with it",
     "innodb_flush_log_at_trx_commit = 1"},
    {"wsrep_dirty_reads", "on", true, Severity::warning,
     "a node that has lost the others answers with what it had then", "wsrep_dirty_reads = OFF"},
}};

constexpr std::array ignored_quorum{"pc.ignore_sb", "pc.ignore_quorum"};

void add(Findings& findings, Severity severity, const std::string& where, const std::string& text,
         const std::string& hint) {
    if (severity == Severity::error)
        findings.error(where, text, hint);
    else
        findings.warning(where, text, hint);
}

/// With the majority, or the tags of this node may not be those of the others.
void check_membership(const ServerKind& kind, const std::string& where, Findings& findings) {
    if (kind.nodes() == 1)
        findings.warning(where, "the node is alone: its tags are nowhere else",
                         "start the other nodes");
    if (kind.nodes() == 2)
        findings.warning(where, "there are two nodes: where one fails, the other stops, too",
                         "start a third node, or Galera's arbitrator");
    const std::string options = kind.setting("wsrep_provider_options");
    for (const std::string name : ignored_quorum) {
        const std::size_t at = options.find(name + " = ");
        if (at != std::string::npos && options.compare(at + name.size() + 3, 4, "true") == 0)
            findings.error(where,
                           name +
                               " is set: nodes that lose each other write apart, and the tags "
                               "of one side are thrown away afterwards",
                           "take " + name + " out of wsrep_provider_options");
    }
    if ((std::atoi(kind.setting("wsrep_sync_wait").c_str()) & 1) == 0)
        findings.warning(where,
                         "a read does not wait for what other nodes have committed: for a moment "
                         "after another node took over, the last tags are not found",
                         "wsrep_sync_wait = 1");
}

/// Two nodes that are given the same tag find out only when they commit, which is not reported.
void check_writers(const ServerKind& kind, const std::string& where, Findings& findings) {
    if (kind.reached.size() > 1)
        findings.error(where,
                       "connections lead to several servers at once (" + joined(kind.reached) +
                           "): two that store the same tag are both told that they did",
                       "one writer, the others as its backup: see the samples for HAProxy");
    const auto conflicts = kind.status.find("wsrep_local_cert_failures");
    if (conflicts != kind.status.end() && std::atoi(conflicts->second.c_str()) > 0)
        findings.warning(where,
                         conflicts->second +
                             " commits were taken back since the node started, because another "
                             "node had written the same",
                         "let all write through one node");
}

/// A call that gives up during a commit is told that it succeeded, whatever becomes of it.
void check_timeouts(Database& database, Findings& findings) {
    for (const char* key : {"READ_TIMEOUT", "WRITE_TIMEOUT"}) {
        const std::string value = OdbcConfiguration().value(database.dsn(), key, "odbc.ini");
        const int seconds = std::atoi(value.c_str());
        if (seconds > 0 && seconds < shortest_read_timeout)
            findings.warning("data source " + database.dsn(),
                             std::string(key) + " = " + value +
                                 ": a commit takes longer while another node takes over, and one "
                                 "that is given up counts as done",
                             std::string(key) + " = 20");
    }
}

}  // namespace

std::string ServerKind::setting(const std::string& name) const {
    const auto found = settings.find(name);
    return found == settings.end() ? "" : found->second;
}

bool ServerKind::is(const std::string& name, const std::string& value) const {
    return lower(setting(name)) == value;
}

bool ServerKind::galera() const {
    return nodes() > 0;
}

int ServerKind::nodes() const {
    const auto found = status.find("wsrep_cluster_size");
    return found == status.end() ? 0 : std::atoi(found->second.c_str());
}

bool ServerKind::ready() const {
    const auto found = status.find("wsrep_ready");
    return !galera() || (found != status.end() && found->second == "ON");
}

std::string ServerKind::text() const {
    std::string text = "a single server";
    if (galera()) {
        const auto state = status.find("wsrep_local_state_comment");
        text = "Galera node " + setting("wsrep_node_name") + " of " + std::to_string(nodes()) +
               ", " + (state == status.end() ? "state unknown" : state->second);
        if (!ready())
            text += ", without the majority";
    }
    if (is("read_only", "on"))
        text += ", read-only";
    if (!proxy.empty())
        text += ", through a proxy (" + proxy + ")";
    return text;
}

ServerKind server_kind(Database& database) {
    ServerKind kind;
    kind.status = shown(database, "show global status like 'wsrep%'");
    kind.settings = shown(database, "show session variables");
    if (!kind.ready())
        return kind;
    for (const std::string& name : database.ask_at_once(
             connections_at_once, "select if(@@wsrep_on, @@wsrep_node_name, @@hostname)")) {
        if (std::find(kind.reached.begin(), kind.reached.end(), name) == kind.reached.end())
            kind.reached.push_back(name);
    }
    kind.proxy = sign_of_a_proxy(database, kind);
    return kind;
}

bool check_server(Database& database, Findings& findings) {
    const std::string where = "server of " + database.dsn();
    const ServerKind kind = server_kind(database);
    if (!kind.ready()) {
        findings.error(where, kind.text() + ": it reads and writes nothing",
                       "start the other nodes; see wsrep_cluster_status");
        return false;
    }
    for (const Danger& one : dangers) {
        const bool others_keep_it = kind.nodes() > 2 && one.severity == Severity::warning;
        if (one.only_galera ? !kind.galera() : others_keep_it)
            continue;
        if (kind.is(one.name, one.value))
            add(findings, one.severity, where,
                std::string(one.name) + " = " + kind.setting(one.name) + ": " + one.text, one.hint);
    }
    check_writers(kind, where, findings);
    if (kind.galera()) {
        check_membership(kind, where, findings);
        check_timeouts(database, findings);
    }
    return true;
}

}  // namespace easctl
