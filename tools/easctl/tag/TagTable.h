// The stored tags of one cluster and default frequency, however many: read in pages, each figure to
// the last bit, and changed in transactions that are short enough for jobs to select meanwhile.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "common/model/EnergyTag.h"
#include "tools/easctl/database/Database.h"

namespace easctl {

/// User and name.
using TagKey = std::pair<std::string, std::string>;

class TagTable {
  public:
    /// `database` must outlive this, and have nothing open.
    TagTable(Database& database, std::string cluster, int default_khz)
        : database_(database), cluster_(std::move(cluster)), default_khz_(default_khz) {}

    using Take = std::function<void(const EnergyTag&)>;
    /// Calls `take` with each tag, by user and name; an empty name matches all. No transaction is
    /// open while it runs.
    void for_each(const std::string& user, const std::string& tag, const Take& take);
    /// The tag of that name; without rows when there is none.
    EnergyTag find(const TagKey& key);

    using Removed = std::function<void(const TagKey&)>;
    /// Removes tags that were made at `made_until` (s since 1970) or earlier, some dozens in each
    /// transaction, with a pause between. `removed` is called after each commit. Throws Failure,
    /// with what was not yet committed still there.
    void remove(const std::vector<TagKey>& tags, double made_until, const Removed& removed);
    /// Stores tags in one transaction; `replace` removes those of the same names in it.
    void store(const std::vector<EnergyTag>& tags, bool replace);

    [[nodiscard]] const std::string& cluster() const { return cluster_; }
    [[nodiscard]] int default_khz() const { return default_khz_; }

  private:
    using Rows = std::vector<Database::Row>;

    std::vector<std::string> users();
    void read_user(const std::string& user, const std::string& tag, const Take& take);
    Rows read_page(const std::string& user, const std::string& condition, const std::string& name,
                   std::size_t limit);
    void remove_batch(const std::string& user, const std::vector<std::string>& names,
                      double made_until);
    void insert(const EnergyTag& tag);

    Database& database_;
    std::string cluster_;
    int default_khz_;
};

}  // namespace easctl
