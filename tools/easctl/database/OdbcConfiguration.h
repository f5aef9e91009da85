// What the driver manager's configuration files say, read by its own configuration library.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace easctl {

class OdbcConfiguration {
  public:
    OdbcConfiguration();
    ~OdbcConfiguration();
    OdbcConfiguration(const OdbcConfiguration&) = delete;
    OdbcConfiguration& operator=(const OdbcConfiguration&) = delete;

    /// False when the configuration library is missing: everything is empty then.
    [[nodiscard]] bool available() const { return read_ != nullptr; }
    /// A key of a section of "odbc.ini" or "odbcinst.ini"; empty when it is not there. An empty key
    /// gives the section's keys, run together: empty when there is no such section.
    [[nodiscard]] std::string value(const std::string& section, const std::string& key,
                                    const char* file) const;

    /// Whether the driver manager can open a driver's library; otherwise `why` says why not.
    [[nodiscard]] bool can_open(const std::string& driver, std::string& why) const;

    struct HalfRead {
        std::string found;
        std::string remedy;
    };
    /// Whether the data source stands in a file that this user named (or has at home) and may read,
    /// but not write. The driver manager then loads its driver, which gets nothing else of it:
    /// neither file nor server, account or INITSTMT.
    [[nodiscard]] std::optional<HalfRead> half_read(const std::string& dsn) const;

    /// The lines of `file` at which a section of this name begins: the first one counts, and
    /// nothing of the others does.
    static std::vector<int> sections(const std::string& file, const std::string& name);

    /// The files that hold data sources, in the order in which they are looked into.
    static std::vector<std::string> data_source_files();
    /// Those that name the drivers.
    static std::vector<std::string> driver_files();
    /// One of these that this user may not read, so that what it holds is not there for the driver
    /// manager; empty: none.
    static std::string denied_of(const std::vector<std::string>& files);
    /// The command that mends that.
    static std::string remedy_of_denied(const std::string& file);

  private:
    using Read = int (*)(const char*, const char*, const char*, char*, int, const char*);

    void* library_;
    Read read_ = nullptr;
};

}  // namespace easctl
