#include "bench/SociClient.h"

// Asks for Boost, which nothing here needs.
#include <soci/soci-config.h>
#undef SOCI_HAVE_BOOST
#undef SOCI_HAVE_BOOST_DATE_TIME

#include <soci/odbc/soci-odbc.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <map>
#include <tuple>
#include <vector>

namespace eas::bench {
namespace {

struct Tag {
    std::string job;
    long long created;
    std::vector<int> frequencies;
    std::vector<double> powers, savings, degradations;
    std::vector<int> times;
};

using Key = std::tuple<std::string, std::string, std::string, int>;

/// On SQLite by SOCI's own backend, as a user would soon find out: through ODBC it clears 100 MB
/// for each text that it fetches, since SQLite's columns have no length.
soci::session open_session() {
    const std::string& file = soci_sqlite_file();
    if (file.empty())
        return {soci::odbc, "DSN=easdb"};
    return {soci::sqlite3, "db=" + file + " timeout=5 synchronous=off"};
}

std::map<Key, Tag> read_tags(soci::session& session, const std::string& condition) {
    std::string tag, user, cluster, job;
    int of_default = 0, frequency = 0, time = 0;
    double power = 0, saving = 0, degradation = 0;
    long long created = 0;
    soci::statement statement =
        (session.prepare << "select * from TQVN_EnergyPolicyTag" + condition, soci::into(tag),
         soci::into(user), soci::into(of_default), soci::into(cluster), soci::into(frequency),
         soci::into(job), soci::into(power), soci::into(saving), soci::into(time),
         soci::into(degradation), soci::into(created));
    statement.execute();
    std::map<Key, Tag> tags;
    while (statement.fetch()) {
        Tag& found = tags[Key(cluster, tag, user, of_default)];
        found.job = job;
        found.created = created;
        found.frequencies.push_back(frequency);
        found.powers.push_back(power);
        found.savings.push_back(saving);
        found.times.push_back(time);
        found.degradations.push_back(degradation);
    }
    return tags;
}

}  // namespace

std::string& soci_sqlite_file() {
    static std::string file;
    return file;
}

std::size_t soci_query(const Which& which) {
    soci::session session = open_session();
    return read_tags(session, which.condition()).size();
}

void soci_generate(const Which& which) {
    soci::session session = open_session();
    soci::transaction transaction(session);
    read_tags(session, which.condition());
    const std::string job = "1234567.0";
    int frequency = 0, time = 0;
    double power = 0, saving = 0, degradation = 0;
    const long long created = 1700000000;
    soci::statement statement =
        (session.prepare << "insert into TQVN_EnergyPolicyTag values (:tag, :user, :default, "
                            ":cluster, :frequency, :job, :power, :saving, :time, :degradation, "
                            ":created)",
         soci::use(which.tag), soci::use(which.user), soci::use(default_frequency),
         soci::use(which.cluster), soci::use(frequency), soci::use(job), soci::use(power),
         soci::use(saving), soci::use(time), soci::use(degradation), soci::use(created));
    for (int i = 0; i < frequencies_per_tag; ++i) {
        frequency = 1200000 + i * 100000;
        power = 200.0 + i;
        saving = degradation = 0.01 * i;
        time = 1000 - i;
        statement.execute(true);
    }
    transaction.commit();
}

void soci_remove(const Which& which) {
    soci::session session = open_session();
    soci::transaction transaction(session);
    read_tags(session, which.condition());
    session << "delete from TQVN_EnergyPolicyTag" + which.condition();
    transaction.commit();
}

std::size_t soci_initialise(const std::string& cluster) {
    soci::session session = open_session();
    const soci::rowset<soci::row> rows =
        (session.prepare << "select * from TQVN_EnergyCoEfficients where cluster_name=\"" +
                                cluster + "\" and default_frequency=" +
                                std::to_string(default_frequency) + " order by frequency");
    std::vector<double> factors;
    for (const soci::row& row : rows) {
        for (std::size_t i = 3; i < 9; ++i)
            factors.push_back(row.get<double>(i));
    }
    return factors.size() / 6;
}

}  // namespace eas::bench
