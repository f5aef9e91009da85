#include "interface/TagStore.h"

#include <cstdlib>
#include <cstring>
#include <exception>

#include "base/CancelState.h"
#include "base/DebugFile.h"
#include "base/Numbers.h"
#include "common/model/CoEfficients.h"
#include "common/model/EnergyTag.h"
#include "common/records/TQVN_EnergyCoEfficients.h"
#include "common/records/TQVN_EnergyPolicyTag.h"
#include "db/base_class/DBConnection.h"
#include "db/base_class/TxObject.h"
#include "interface/LibraryState.h"
#include "interface/TagIndex.h"

namespace {

constexpr int no_more_data = SQL_NO_DATA;

void debug_log(const char* message) {
    eas_debug_printf(debug_fd, message);
}

/// A field that is not set, or a name that was not asked for, says nothing against a row.
bool bears(std::string_view field, std::string_view name) {
    return field.empty() || name.empty() || field == name;
}

/// What tags are asked for. An empty name matches all.
struct TagRequest {
    const std::string& cluster;
    int default_frequency;
    const std::string& user;
    const std::string& tag;

    [[nodiscard]] std::string condition() const {
        return format_condition(cluster, default_frequency, user, tag);
    }

    [[nodiscard]] bool is_safe() const {
        return eas::is_safe_in_condition(cluster) && eas::is_safe_in_condition(user) &&
               eas::is_safe_in_condition(tag);
    }

    /// A row that bears other names than those asked for shows that the database read the condition
    /// in another sense: an engine may take a quoted name for a column, or compare without case.
    [[nodiscard]] bool asked_for(const TQVN_EnergyPolicyTag& row) const {
        return bears(row._cluster_name, cluster) && bears(row._user_name, user) &&
               bears(row._energy_tag_name, tag);
    }
};

void add_row(const TQVN_EnergyPolicyTag& row, EnergyTag& tag) {
    tag.set_array_data(row._frequency, row._predict_power, row._energy_saving_pct,
                       row._predict_elapse_time, row._perf_degrad_pct);
}

EnergyTag tag_of(const TQVN_EnergyPolicyTag& row) {
    EnergyTag tag;
    tag.cluster_name(row._cluster_name);
    tag.default_frequency(row._default_frequency);
    tag.user_name(row._user_name);
    tag.energy_tag_name(row._energy_tag_name);
    tag.job_step_id(row._job_id);
    tag.create_time(row._create_time);
    return tag;
}

/// Fetches every row of an open query into `etags`; false when one is missing or was not asked for.
bool fetch_tags(TxObject& tx, TQVN_EnergyPolicyTag& row, const TagRequest& request,
                std::vector<EnergyTag>& etags) {
    eas::TagIndex index(etags);
    int status = 0;
    while ((status = tx.fetch(&row)) == 0) {
        if (!request.asked_for(row))
            return false;
        const eas::TagKey key{row._cluster_name, row._energy_tag_name, row._user_name,
                              row._default_frequency};
        EnergyTag* tag = index.find(key);
        if (tag == nullptr)
            tag = &index.append(tag_of(row));
        add_row(row, *tag);
    }
    return status == no_more_data;
}

void fill_row(const EnergyTag& tag, std::size_t i, TQVN_EnergyPolicyTag& row) {
    eas::copy_as_format(row._energy_tag_name, tag.energy_tag_name());
    eas::copy_as_format(row._user_name, tag.user_name());
    eas::copy_as_format(row._cluster_name, tag.cluster_name());
    eas::copy_as_format(row._job_id, tag.job_step_id());
    row._default_frequency = tag.default_frequency();
    row._create_time = tag.create_time();
    row._frequency = tag.frequency_array()[i];
    row._predict_power = tag.predict_power_array()[i];
    row._energy_saving_pct = tag.energy_saving_pct_array()[i];
    row._predict_elapse_time = tag.predict_elapse_time_array()[i];
    row._perf_degrad_pct = tag.perf_degrad_pct_array()[i];
}

/// A list of heap strings that is freed with its entries unless it is handed out.
class StringList {
  public:
    explicit StringList(std::size_t count)
        : list_(static_cast<char**>(std::calloc(count, sizeof(char*)))),
          count_(list_ != nullptr ? count : 0) {}
    ~StringList() {
        for (std::size_t i = 0; i < count_; ++i)
            std::free(list_[i]);
        std::free(list_);
    }
    StringList(const StringList&) = delete;
    StringList& operator=(const StringList&) = delete;

    [[nodiscard]] bool allocated() const { return list_ != nullptr; }
    [[nodiscard]] bool store(std::size_t i, const std::string& text) {
        return (list_[i] = ::strdup(text.c_str())) != nullptr;
    }
    [[nodiscard]] char** release() {
        count_ = 0;
        return std::exchange(list_, nullptr);
    }

  private:
    char** list_;
    std::size_t count_;
};

/// A commit that fails may leave the transaction open. It is taken back, or it would wait in a pool
/// of connections, with its locks, for the commit of a later call.
void commit(TxObject& tx) {
    if (!SQL_SUCCEEDED(tx.commit()))
        tx.rollback();
}

bool list_tags(const std::vector<EnergyTag>& tags, StringList& users, StringList& names) {
    if (!users.allocated() || !names.allocated())
        return false;
    for (std::size_t i = 0; i < tags.size(); ++i) {
        if (!users.store(i, tags[i].user_name()) || !names.store(i, tags[i].energy_tag_name()))
            return false;
    }
    return true;
}

}  // namespace

DBConnection* create_db_connection() {
    auto conn = std::make_unique<DBConnection>(nullptr, false, 0);
    const int status = conn->connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    return status == SQL_SUCCESS || status == SQL_SUCCESS_WITH_INFO ? conn.release() : nullptr;
}

void close_db_connection(DBConnection* conn) {
    const std::unique_ptr<DBConnection> owner(conn);
    if (owner)
        owner->disconnect();
}

int read_coeffs_from_db(DBConnection* conn, const std::string& cluster_name, int def_freq,
                        CoEfficients& coeffs_ref) {
    if (def_freq <= 0 || cluster_name.empty())
        return 1;
    const std::string condition = " where cluster_name=\"" + cluster_name +
                                  "\" and default_frequency=" + eas::decimal(def_freq) +
                                  " order by frequency asc";
    TxObject tx(conn);
    TQVN_EnergyCoEfficients row;
    row.selectAll();
    if (tx.query(&row, condition.c_str(), true) != 0)
        return 1;

    int status = 0;
    while ((status = tx.fetch(&row)) == 0) {
        if (!bears(row._cluster_name, cluster_name))
            return 1;  // the database read the condition in another sense
        coeffs_ref.setArrayData(row._frequency, row._factor_a, row._factor_b, row._factor_c,
                                row._factor_d, row._factor_e, row._factor_f);
        if (coeffs_ref.getClusterName().empty())
            coeffs_ref.setClusterName(row._cluster_name);
    }
    return status == no_more_data && coeffs_ref.total_frequencies() > 0 ? 0 : 1;
}

std::string format_condition(const std::string& cluster_name, int default_frequency,
                             const std::string& user_name, const std::string& tag_name) {
    std::string text = " where ";
    const std::size_t empty_length = text.size();
    const auto append_name = [&text](std::string_view column, const std::string& name) {
        if (!name.empty())
            text.append(column).append("=\"").append(name).append("\" and ");
    };
    append_name("cluster_name", cluster_name);
    append_name("user_name", user_name);
    if (default_frequency > 0)
        text.append("default_frequency=").append(eas::decimal(default_frequency)).append(" and ");
    append_name("energy_tag_name", tag_name);
    if (text.size() == empty_length)
        return {};
    text.erase(text.size() - std::string_view(" and ").size());
    return text;
}

int read_tags_from_db(DBConnection* conn, const std::string& cluster_name, int deffreq,
                      const std::string& user, const std::string& tag,
                      std::vector<EnergyTag>& etags) {
    const TagRequest request{cluster_name, deffreq, user, tag};
    const std::string condition = request.condition();
    if (eas::debug_output_wanted())
        eas_debug_printf(debug_fd, "The SQL condition: " + condition + "\n");

    TxObject tx(conn);
    TQVN_EnergyPolicyTag row;
    row.selectAll();
    row.clear();  // a column that is null keeps what the record held
    if (!request.is_safe() ||
        tx.query(&row, condition.empty() ? nullptr : condition.c_str(), true) != 0) {
        debug_log("Failed to query energy tags from DB.\n");
        etags.clear();
        return -1;
    }
    if (!fetch_tags(tx, row, request, etags)) {
        debug_log("Not all energy tag records are read out from DB.\n");
        etags.clear();
        return -1;
    }
    return static_cast<int>(etags.size());
}

int load_etag_into_db(DBConnection* conn, const EnergyTag& etag) {
    const std::size_t rows = etag.frequency_array().size();
    if (rows == 0)
        return -1;
    TxObject tx(conn);
    TQVN_EnergyPolicyTag row;
    row.selectAll();
    for (std::size_t i = 0; i < rows; ++i) {
        fill_row(etag, i, row);
        if (tx.insert(&row, false) != 0) {
            tx.rollback();
            return -1;
        }
    }
    commit(tx);
    return 0;
}

int remove_tags_from_db(DBConnection* conn, const std::string& cluster_name, int default_frequency,
                        const std::string& user_name, const std::string& tag_name,
                        char**& user_list, char**& tagname_list) {
    user_list = nullptr;
    tagname_list = nullptr;
    std::vector<EnergyTag> tags;
    const int count =
        read_tags_from_db(conn, cluster_name, default_frequency, user_name, tag_name, tags);
    if (count <= 0) {
        eas::end_read(*conn);
        return count;
    }

    const std::string condition =
        format_condition(cluster_name, default_frequency, user_name, tag_name);
    TxObject tx(conn);
    TQVN_EnergyPolicyTag row;
    row.selectAll();
    StringList users(tags.size());
    StringList names(tags.size());
    if (tx.del(&row, condition.empty() ? nullptr : condition.c_str()) != 0 ||
        !list_tags(tags, users, names)) {
        tx.rollback();
        return -1;
    }
    commit(tx);
    user_list = users.release();
    tagname_list = names.release();
    return count;
}

namespace eas {

void CloseConnection::operator()(DBConnection* conn) const {
    const DeferCancellation until_closed;
    // What an exception cut short must not wait in a pool for the commit of a later call.
    if (std::uncaught_exceptions() > exceptions_)
        conn->rollback();
    close_db_connection(conn);
}

void end_read(DBConnection& conn) {
    conn.rollback();
}

bool is_safe_in_condition(std::string_view name) {
    if (name.find('"') != std::string_view::npos)
        return false;
    const std::size_t last = name.find_last_not_of('\\');
    const std::size_t backslashes = name.size() - (last == std::string_view::npos ? 0 : last + 1);
    return backslashes % 2 == 0;
}

void copy_as_format(char* field, std::size_t size, std::string_view text) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < text.size() && length + 1 < size; ++i) {
        field[length++] = text[i];
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%')
            ++i;
    }
    field[length] = '\0';
}

}  // namespace eas
