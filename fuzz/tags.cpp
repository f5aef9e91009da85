// Names through the scheduler functions into a database: what is generated, queried, selected and
// removed under crafted names, beside the tags of another user.
//
// The input is four texts with a zero byte between them: tag, user, cluster, job.
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "fuzz/Fuzz.h"
#include "interface/TagRecord.h"
#include "interface/interface.h"
#include "tests/support/ScratchDatabase.h"

using eas::fuzz::check;

namespace {

constexpr int default_frequency = 2000000;
constexpr int frequencies = 3;
constexpr const char* victim = "victim";

struct Names {
    std::string tag, user, cluster, job;
};

using Rows = std::vector<std::vector<std::string>>;

Names names_of(const std::string& input) {
    std::array<std::string, 4> texts;
    std::size_t start = 0;
    for (std::string& text : texts) {
        text = input.substr(start, input.find('\0', start) - start);
        start = std::min(input.size(), start + text.size() + 1);
    }
    return {texts[0], texts[1], texts[2], texts[3]};
}

/// What a field of `size` bytes keeps: "%%" is one "%", and what is too long is cut.
std::string stored(std::string text, std::size_t size) {
    for (std::size_t at = 0; (at = text.find("%%", at)) != std::string::npos; ++at)
        text.erase(at, 1);
    return text.substr(0, size);
}

std::string hex(const std::string& text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        out += {digits[byte >> 4], digits[byte & 15]};
    }
    return out;
}

int generate(Names names) {
    double counters[3] = {3.1e12, 2.4e12, 8.0e12};
    return eas_generate_tag(names.cluster.data(), default_frequency, names.user.data(),
                            names.tag.data(), counters, names.job.data(), 2400, 268.4);
}

class Database {
  public:
    Database() {
        const std::string thresholds = scratch_.folder() / "thresholds";
        std::ofstream(thresholds) << "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2.2 -5\nEnd Min_Time\n";
        scratch_.seed_coefficients("fuzz", default_frequency, 1800000, 200000, frequencies);
        std::string cluster = "fuzz";
        std::string file = thresholds;
        check(eas_initialize(cluster.data(), default_frequency, file.data()) == EAS_OK,
              "the library starts");
        for (const char* tag : {"tag", "flame"})
            check(generate({tag, victim, "fuzz", "1"}) == EAS_OK, "the victim has tags");
        victims_ = rows();
    }

    /// Every row, its texts in hexadecimal, so that no driver has a say in how they look.
    Rows rows() {
        return scratch_.plain().run(
            "select hex(cluster_name), hex(user_name), hex(energy_tag_name), hex(job_id), "
            "frequency, default_frequency, predict_power, energy_saving_pct, "
            "predict_elapse_time, perf_degrad_pct, create_time from TQVN_EnergyPolicyTag "
            "order by 1, 2, 3, 5");
    }

    void check_victims(const Rows& now) const {
        check(std::includes(now.begin(), now.end(), victims_.begin(), victims_.end()),
              "another user's rows stay as they are");
    }

    /// Takes the rows away that the input left.
    void clean() {
        scratch_.plain().run("delete from TQVN_EnergyPolicyTag where user_name <> 'victim'");
        check(rows() == victims_, "only the victim's rows are left");
    }

    [[nodiscard]] const Rows& victims() const { return victims_; }

  private:
    eas::test::ScratchDatabase scratch_{eas::test::Engine::sqlite};
    Rows victims_;
};

/// Whether the database finds a name again: it is stored as it is, the library sends it, and SQLite
/// does not take it for a column.
bool is_findable(const std::string& name, std::size_t size) {
    static constexpr std::array columns = {
        "energy_tag_name",     "user_name",       "default_frequency", "cluster_name",
        "frequency",           "job_id",          "predict_power",     "energy_saving_pct",
        "predict_elapse_time", "perf_degrad_pct", "create_time"};
    const auto is_name = [&](const char* column) {
        return ::strcasecmp(column, name.c_str()) == 0;
    };
    const std::size_t end = name.find_last_not_of('\\');
    const std::size_t backslashes = name.size() - (end + 1);
    return stored(name, size) == name && name.find('"') == std::string::npos &&
           backslashes % 2 == 0 && std::none_of(columns.begin(), columns.end(), is_name);
}

void check_generation(Database& database, const Names& names) {
    const int result = generate(names);
    const Rows now = database.rows();
    database.check_victims(now);
    if (result != EAS_OK) {
        check(result == EAS_BAD_ARGUMENT || result == EAS_STORE_FAILED, "a documented result");
        check(now == database.victims(), "a tag that is refused leaves nothing");
        return;
    }
    check(now.size() == database.victims().size() + frequencies, "a row for every frequency");
    const std::array expected = {hex(stored(names.cluster, 40)), hex(stored(names.user, 256)),
                                 hex(stored(names.tag, 256)), hex(stored(names.job, 1024))};
    const auto is_ours = [&](const auto& row) {
        return std::equal(expected.begin(), expected.end(), row.begin());
    };
    check(std::count_if(now.begin(), now.end(), is_ours) == frequencies,
          "the names are stored byte for byte");
    check(generate(names) != EAS_OK && database.rows() == now, "a second one is refused");
}

/// The number of tags found under the names, -1 for a query that fails. Frees them.
int query(Names names, bool any_tag) {
    int count = 0;
    energyPolicyTag_t* tags = nullptr;
    const int result = eas_query_tag(names.cluster.data(), default_frequency, names.user.data(),
                                     any_tag ? nullptr : names.tag.data(), &count, &tags);
    check(result == EAS_OK || result == EAS_QUERY_FAILED, "a documented result");
    check(result == EAS_OK || (count == 0 && tags == nullptr), "a failure hands nothing out");
    for (int i = 0; i < count; ++i) {
        check(names.user == tags[i].user_name && names.cluster == tags[i].cluster_name,
              "only what the user asked for is read");
        check(any_tag || names.tag == tags[i].energy_tag_name, "only the tag asked for is read");
        check(tags[i].num_freq == frequencies, "a tag is whole");
    }
    free_tag_struct(tags, count);
    std::free(tags);
    return result == EAS_OK ? count : -1;
}

int select_frequency(Names names) {
    int selected = 0;
    double change = 0.0;
    char policy[] = "minimize_energy";
    return eas_auto_select_frequency(names.cluster.data(), default_frequency, names.user.data(),
                                     names.tag.data(), policy, &selected, &change);
}

/// The number of tags removed under the names, -1 for a removal that fails.
int remove(Names names, bool any_tag) {
    int count = 0;
    char** users = nullptr;
    char** tags = nullptr;
    const int result = eas_remove_tag(names.cluster.data(), default_frequency, names.user.data(),
                                      any_tag ? nullptr : names.tag.data(), &count, &users, &tags);
    check(result == EAS_OK || result == EAS_REMOVE_FAILED, "a documented result");
    for (int i = 0; i < count; ++i) {
        check(names.user == users[i], "only what the user asked for is removed");
        std::free(users[i]);
        std::free(tags[i]);
    }
    std::free(users);
    std::free(tags);
    return result == EAS_OK ? count : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Database database;
    const Names names = names_of(eas::fuzz::text_of(data, size));
    // No user name means every user, and that one is the victim.
    if (names.user.empty() || names.user == victim)
        return 0;
    check_generation(database, names);
    const bool stored_here = database.rows() != database.victims();
    const bool owner_findable = is_findable(names.user, 256) && is_findable(names.cluster, 40);
    const bool findable = owner_findable && is_findable(names.tag, 256);

    query(names, true);
    const int found = query(names, false);
    const bool selected = select_frequency(names) == EAS_OK;
    const int removed = remove(names, false);
    const Rows after = database.rows();
    database.check_victims(after);
    if (stored_here && findable) {
        check(found == 1 && selected && removed == 1, "a plain name is found and removed");
        check(after == database.victims(), "a removed tag leaves nothing");
    }
    if (stored_here && owner_findable) {
        remove(names, true);
        check(database.rows() == database.victims(), "a user gets rid of tags of whatever name");
    }
    database.clean();
    return 0;
}
