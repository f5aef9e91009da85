#include "interface/TagStore.h"

#include <cstdlib>
#include <cstring>

#include "base/DebugFile.h"
#include "base/Numbers.h"
#include "common/model/CoEfficients.h"
#include "common/model/EnergyTag.h"
#include "common/records/TQVN_EnergyCoEfficients.h"
#include "common/records/TQVN_EnergyPolicyTag.h"
#include "db/base_class/DB_Ptr.h"
#include "db/base_class/Transaction.h"
#include "db/base_class/TxObject.h"
#include "interface/LibraryState.h"
#include "interface/TagIndex.h"
#include "interface/TagRequest.h"

namespace {

constexpr int no_more_data = SQL_NO_DATA;

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

/// What a read found beside what it was asked for: rows that bear other names.
enum class Others { none, some };

/// Fetches the rows of an open query that were asked for into `etags`; false when one is missing.
bool fetch_tags(TxObject& tx, TQVN_EnergyPolicyTag& row, const eas::TagRequest& request,
                std::vector<EnergyTag>& etags, Others& others) {
    eas::TagIndex index(etags);
    int status = 0;
    while ((status = tx.fetch(&row)) == 0) {
        const eas::TagKey key{row._cluster_name, row._energy_tag_name, row._user_name,
                              row._default_frequency};
        if (!request.asked_for(key)) {
            others = Others::some;
            continue;
        }
        EnergyTag* tag = index.find(key);
        if (tag == nullptr)
            tag = &index.append(tag_of(row));
        add_row(row, *tag);
    }
    return status == no_more_data;
}

/// read_tags_from_db, and whether rows were passed over.
int read_tags(DBConnection* conn, const eas::TagRequest& request, std::vector<EnergyTag>& etags,
              Others& others) {
    const std::string condition = request.condition();
    if (eas::debug_output_wanted())
        eas_debug_printf(debug_fd, "The SQL condition: " + condition + "\n");

    TxObject tx(conn);
    TQVN_EnergyPolicyTag row;
    row.selectAll();
    row.clear();  // a column that is null keeps what the record held
    const char* failed = nullptr;
    if (!request.is_safe() ||
        tx.query(&row, condition.empty() ? nullptr : condition.c_str(), true) != 0)
        failed = "Failed to query energy tags from DB.\n";
    else if (!fetch_tags(tx, row, request, etags, others))
        failed = "Not all energy tag records are read out from DB.\n";
    if (failed == nullptr)
        return static_cast<int>(etags.size());
    eas::debug_log(failed);
    etags.clear();
    return -1;
}

void fill_row(const EnergyTag& tag, const eas::TagRow& prediction, TQVN_EnergyPolicyTag& row) {
    eas::copy_as_format(row._energy_tag_name, tag.energy_tag_name());
    eas::copy_as_format(row._user_name, tag.user_name());
    eas::copy_as_format(row._cluster_name, tag.cluster_name());
    eas::copy_as_format(row._job_id, tag.job_step_id());
    row._default_frequency = tag.default_frequency();
    row._create_time = tag.create_time();
    row._frequency = prediction.frequency;
    row._predict_power = prediction.power;
    row._energy_saving_pct = prediction.energy_change;
    row._predict_elapse_time = prediction.seconds;
    row._perf_degrad_pct = prediction.time_change;
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
    const DB_Ptr owner(conn);
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
        if (!eas::bears(row._cluster_name, cluster_name))
            continue;
        coeffs_ref.setArrayData(row._frequency, row._factor_a, row._factor_b, row._factor_c,
                                row._factor_d, row._factor_e, row._factor_f);
        if (coeffs_ref.getClusterName().empty())
            coeffs_ref.setClusterName(row._cluster_name);
    }
    return status == no_more_data && coeffs_ref.total_frequencies() > 0 ? 0 : 1;
}

int read_tags_from_db(DBConnection* conn, const std::string& cluster_name, int deffreq,
                      const std::string& user, const std::string& tag,
                      std::vector<EnergyTag>& etags) {
    Others others = Others::none;
    return read_tags(conn, {cluster_name, deffreq, user, tag}, etags, others);
}

int load_etag_into_db(DBConnection* conn, const EnergyTag& etag) {
    if (etag.available() == 0)
        return -1;
    eas::Transaction transaction(*conn);
    TxObject tx(conn);
    TQVN_EnergyPolicyTag row;
    row.selectAll();
    for (const eas::TagRow& prediction : etag.rows()) {
        fill_row(etag, prediction, row);
        if (tx.insert(&row, false) != 0) {
            transaction.rollback();
            return -1;
        }
    }
    transaction.commit();
    return 0;
}

int remove_tags_from_db(DBConnection* conn, const std::string& cluster_name, int default_frequency,
                        const std::string& user_name, const std::string& tag_name,
                        char**& user_list, char**& tagname_list) {
    user_list = nullptr;
    tagname_list = nullptr;
    eas::Transaction transaction(*conn);
    const eas::TagRequest request{cluster_name, default_frequency, user_name, tag_name};
    std::vector<EnergyTag> tags;
    Others others = Others::none;
    const int count = read_tags(conn, request, tags, others);
    if (count <= 0)
        return count;
    if (others == Others::some)
        return -1;  // they would go, too

    const std::string condition = request.condition();
    TxObject tx(conn);
    TQVN_EnergyPolicyTag row;
    row.selectAll();
    StringList users(tags.size());
    StringList names(tags.size());
    if (tx.del(&row, condition.empty() ? nullptr : condition.c_str()) != 0 ||
        !list_tags(tags, users, names)) {
        transaction.rollback();
        return -1;
    }
    transaction.commit();
    user_list = users.release();
    tagname_list = names.release();
    return count;
}

namespace eas {

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
