// The scheduler's functions, through the library that ships, beside the floor and SOCI, on one
// engine:
//
//   scheduler_bench sqlite|mariadb [--quick] [options of Google Benchmark]
// EAS_BENCH_TAGS=1000000 in the environment: the largest query, instead of 100 000.
//
// What must not share the process runs in another one, which is this program again: calls with the
// driver manager's connection pooling (--serve), and peaks of memory (--peak).
#include <malloc.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

#include "bench/Contest.h"
#include "bench/Floor.h"
#include "bench/LibraryCalls.h"
#include "bench/OtherProcess.h"
#include "bench/SociClient.h"
#include "tests/support/ScratchDatabase.h"

namespace eas::bench {
namespace {

using test::Engine;
using test::ScratchDatabase;

constexpr int site_size = 500000;  // tags; more are queried once only
constexpr int threads = 8;
constexpr int calls_per_thread = 4;

// --- works: one call each, on a tag of its own where it writes ---

const Which one_tag{"q100", "user0000", "profile-0000042"};

Which own_tag(const char* who) {
    return {model_cluster, who, "a-job-profile"};
}

Work generate(const char* who, void (*call)(const Which&)) {
    return [=] {
        const Which which = own_tag(who);
        const double time = timed([&] { call(which); });
        floor_remove(which);
        return time;
    };
}

Work remove(const char* who, void (*call)(const Which&)) {
    return [=] {
        const Which which = own_tag(who);
        floor_generate(which);
        return timed([&] { call(which); });
    };
}

Work plain(std::function<void()> call) {
    return [call = std::move(call)] { return timed(call); };
}

struct Operation {
    const char* name;
    double goal;
    Work library, floor, soci;
};

std::vector<Operation> operations() {
    return {
        {"initialise", 1.15, plain(library_initialise), plain([] { floor_initialise("bench"); }),
         plain([] { soci_initialise("bench"); })},
        {"generate", 1.10, generate("library", library_generate), generate("floor", floor_generate),
         generate("soci", soci_generate)},
        {"select", 1.10, plain([] { library_select(one_tag); }),
         plain([] { floor_query(one_tag); }), plain([] { soci_query(one_tag); })},
        {"query of 1 tag", 1.10, [] { return library_query(one_tag, 1); },
         plain([] { floor_query(one_tag); }), plain([] { soci_query(one_tag); })},
        {"remove", 1.10, remove("library", library_remove), remove("floor", floor_remove),
         remove("soci", soci_remove)},
    };
}

// --- the program again, for what needs a process of its own ---

int serve_operation(const std::string& name) {
    library_initialise();
    for (const Operation& operation : operations()) {
        if (name == operation.name)
            return serve(operation.library);
    }
    return 2;
}

/// Bytes, as /proc/self/status has them.
double status_bytes(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, std::strlen(field), field) == 0)
            return std::strtod(line.c_str() + std::strlen(field) + 1, nullptr) * 1024;
    }
    throw std::runtime_error(field);
}

/// How much the process grows at most while it runs `call`, bytes.
double peak_of(const std::function<void()>& call) {
    ::malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5" << std::flush;  // the peak starts again from here
    const double before = status_bytes("VmRSS:");
    call();
    return status_bytes("VmHWM:") - before;
}

int serve_peak(const std::string& who, const std::string& cluster) {
    const Which which{cluster, "", ""};
    int count = 0;
    energyPolicyTag_t* tags = nullptr;
    const auto query = [&] {
        if (who == "floor")
            floor_query(which);
        else
            eas_query_tag(text(cluster), default_frequency, nullptr, nullptr, &count, &tags);
    };
    library_initialise();
    query();  // what is loaded on first use is no result's
    free_tags(tags, count);
    const double peak = peak_of(query);
    double bytes = 0;
    for (int i = 0; i < count; ++i)
        bytes += static_cast<double>(handed_out(tags[i]));
    int answers = 0;
    return serve([&] { return answers++ == 0 ? peak : bytes; });
}

// --- the contests ---

class Bench {
  public:
    explicit Bench(Engine engine) : database_(engine), name_(test::name_of(engine) + ": ") {
        ::setenv("ODBCINI_FOLDER", database_.folder().c_str(), 1);
        database_.seed_coefficients(model_cluster, default_frequency, 1200000, 100000,
                                    frequencies_per_tag);
        std::ofstream(database_.folder().string() + threshold_file)
            << "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
            << "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2400MHz -3\n2700MHz -10\nEnd Min_Time\n";
        if (engine == Engine::sqlite)
            soci_sqlite_file() = (database_.folder() / "easdb.sqlite").string();
        write_pooling();
    }

    void add_all(const std::vector<int>& sizes) {
        for (const int size : sizes)
            store_tags(size);
        library_initialise();
        for (const Operation& operation : operations())
            add_operation(operation);
        for (const int size : sizes) {
            if (size > 1)
                add_query(size);
        }
        add_growth(sizes.back());
        int most_interleaved = 0;
        for (const int size : sizes)
            most_interleaved = size <= 10000 ? size : most_interleaved;
        add_interleaved(most_interleaved);
        add_threads();
        for (const int size : sizes)
            add_memory(size);
    }

  private:
    [[nodiscard]] std::string pooled() const { return (database_.folder() / "pooled").string(); }

    /// The same drivers, pooled.
    void write_pooling() {
        std::filesystem::create_directory(pooled());
        std::ifstream plain(database_.folder() / "odbcinst.ini");
        std::ofstream out(pooled() + "/odbcinst.ini");
        out << "[ODBC]\nPooling = Yes\n\n";
        for (std::string line; std::getline(plain, line);) {
            out << line << '\n';
            if (line.compare(0, 8, "Driver =") == 0)
                out << "CPTimeout = 60\n";
        }
    }

    /// `tags` tags of 16 frequencies, 1000 of a user.
    void store_tags(int tags) {
        constexpr int at_once = 100000;  // a longer statement outlasts the data source's time-out
        for (int first = 0; first < tags; first += at_once)
            store_tags(tags, first, std::min(first + at_once, tags) - 1);
    }

    /// Those from number `first` to `last`.
    void store_tags(int tags, int first, int last) {
        const std::string range_begin = std::to_string(first);
        const std::string range_end = std::to_string(last);
        const std::string cluster = "'q" + std::to_string(tags) + "'";
        std::string i = "i.seq";
        std::string k = "k.seq";
        std::string from = " from seq_" + range_begin + "_to_" + range_end +
                           " i join seq_0_to_15 k order by 2, 1, 5";
        std::string tag = "concat('profile-', lpad(i.seq, 7, '0'))";
        std::string user = "concat('user', lpad(i.seq div 1000, 4, '0'))";
        std::string with;
        if (database_.engine() == Engine::sqlite) {
            with = "with recursive t(i) as (select " + range_begin +
                   " union all select i+1 from t where i<" + range_end +
                   "), f(k) as (select 0 union all select k+1 from f where k<15) ";
            k = "k";
            from = " from t cross join f order by i, k";
            tag = "printf('profile-%07d', i)";
            user = "printf('user%04d', i/1000)";
        }
        database_.plain().run("insert into TQVN_EnergyPolicyTag " + with + "select " + tag + "," +
                              user + ",2000000," + cluster + ",1200000+" + k +
                              "*100000,'1234567.0',200.25+" + k + "*3.0,0.0125*" + k +
                              "-0.1,1000-" + k + ",0.1-0.0125*" + k + ",1700000000" + from);
    }

    void add_operation(const Operation& operation) {
        add({name_ + operation.name, operation.goal, 200, 1, [this, operation] {
                 const auto other = std::make_shared<OtherProcess>(
                     std::vector<std::string>{"--serve", operation.name}, pooled());
                 return std::vector<Contender>{{"library", operation.library},
                                               {"floor", operation.floor},
                                               {"SOCI", operation.soci},
                                               {"pooled", [other] { return other->run(); }}};
             }});
    }

    static std::vector<Contender> query_contenders(int size) {
        const Which which{"q" + std::to_string(size), "", ""};
        std::vector<Contender> all{{"library", [=] { return library_query(which, size); }},
                                   {"floor", plain([=] { floor_query(which); })}};
        if (size < site_size)
            all.push_back({"SOCI", plain([=] { soci_query(which); })});
        return all;
    }

    [[nodiscard]] std::string query_name(int size) const {
        return name_ + "query of " + std::to_string(size) + " tags";
    }

    void add_query(int size) {
        const int rounds = size >= site_size ? 1 : size > 10000 ? 7 : size > 1000 ? 15 : 100;
        add({query_name(size) + ", per tag", size > 1000 ? 1.25 : 1.10, rounds,
             static_cast<double>(size), [=] { return query_contenders(size); }});
    }

    void add_growth(int size) {
        add_row(name_ + "growth to " + std::to_string(size) + " tags", [=] {
            std::array<char, 80> row{};
            const auto growth = [&](std::size_t contender) {
                return median(query_name(size) + ", per tag", contender) /
                       median(query_name(size / 10) + ", per tag", contender);
            };
            std::snprintf(row.data(), row.size(),
                          "time of the library x%.2f (goal: at most 11), of the floor x%.2f",
                          growth(0), growth(1));
            return std::string(row.data());
        });
    }

    /// Rows in an order of their own need a table without a key, for the length of the contest.
    void add_interleaved(int size) {
        add({name_ + "rows of " + std::to_string(size) + " tags interleaved", 1.25, 15,
             static_cast<double>(size), [=] {
                 const auto table = std::make_shared<UnorderedTable>(database_.plain(), size);
                 return std::vector<Contender>{
                     {"library",
                      [=] {
                          return library_query({"mixed", "", ""}, size);
                      }},
                     {"floor", [=] { return timed([] {
                                         floor_query({"mixed", "", ""});
                                     }); }},
                     {"grouped rows", [=] { return library_query(table->grouped, size); }}};
             }});
    }

    class UnorderedTable {
      public:
        UnorderedTable(test::PlainOdbc& plain, int size) : plain_(plain) {
            const std::string rows =
                " from with_keys where cluster_name='q" + std::to_string(size) + "' order by ";
            plain.run("alter table TQVN_EnergyPolicyTag rename to with_keys");
            plain.run("create table TQVN_EnergyPolicyTag as select *" + rows +
                      "user_name, energy_tag_name, frequency");
            plain.run("update TQVN_EnergyPolicyTag set cluster_name='group'");
            plain.run("insert into TQVN_EnergyPolicyTag select *" + rows +
                      "frequency, user_name, energy_tag_name");
            plain.run(
                "update TQVN_EnergyPolicyTag set cluster_name='mixed' "
                "where cluster_name!='group'");
        }
        ~UnorderedTable() {
            plain_.run("drop table TQVN_EnergyPolicyTag");
            plain_.run("alter table with_keys rename to TQVN_EnergyPolicyTag");
        }
        UnorderedTable(const UnorderedTable&) = delete;
        UnorderedTable& operator=(const UnorderedTable&) = delete;

        const Which grouped{"group", "", ""};

      private:
        test::PlainOdbc& plain_;
    };

    static Work in_threads(const std::function<void()>& call) {
        return plain([call] {
            std::vector<std::thread> all;
            for (int i = 0; i < threads; ++i) {
                all.emplace_back([&call] {
                    for (int k = 0; k < calls_per_thread; ++k)
                        call();
                });
            }
            for (std::thread& thread : all)
                thread.join();
        });
    }

    void add_threads() {
        add({name_ + "8 threads select, per call", 1.15, 60, threads * calls_per_thread, [] {
                 return std::vector<Contender>{
                     {"library", in_threads([] { library_select(one_tag); })},
                     {"floor", in_threads([] { floor_query(one_tag); })},
                     {"SOCI", in_threads([] { soci_query(one_tag); })}};
             }});
    }

    void add_memory(int size) {
        add_row(name_ + "memory of " + std::to_string(size) + " tags", [=] {
            const std::string cluster = "q" + std::to_string(size);
            const std::string sysini = database_.folder().string();
            OtherProcess library({"--peak", "library", cluster}, sysini);
            OtherProcess floor({"--peak", "floor", cluster}, sysini);
            const double peak = library.run() / size;
            const double drivers = floor.run() / size;
            const double out = library.run() / size;
            // One copy of the rows is as large as what is handed out.
            std::array<char, 160> row{};
            std::snprintf(row.data(), row.size(),
                          "peak %.0f bytes per tag, of which driver %.0f; handed out %.0f; "
                          "(peak - driver) / (2 x handed out) %.2f (goal: at most 1.3)",
                          peak, drivers, out, (peak - drivers) / (2 * out));
            return std::string(row.data());
        });
    }

    ScratchDatabase database_;
    std::string name_;
};

std::vector<int> sizes() {
    if (const char* most = std::getenv("EAS_BENCH_TAGS"))
        return {100, std::atoi(most) / 10, std::atoi(most)};
    if (is_quick())
        return {100, 1000};
    return {100, 10000, 100000};
}

int main_of(int argc, char** argv) {
    const std::string first = argc > 1 ? argv[1] : "";
    if (first == "--serve" && argc > 2)
        return serve_operation(argv[2]);
    if (first == "--peak" && argc > 3)
        return serve_peak(argv[2], argv[3]);
    if (first != "sqlite" && first != "mariadb") {
        std::fprintf(stderr, "usage: scheduler_bench sqlite|mariadb [--quick]\n");
        return 2;
    }
    const Engine engine = first == "sqlite" ? Engine::sqlite : Engine::mariadb;
    if (const auto why = ScratchDatabase::missing(engine)) {
        std::printf("%s: %s\n", first.c_str(), why->c_str());
        return 0;
    }
    take_options(argc, argv);
    Bench bench(engine);
    bench.add_all(sizes());
    return run(argc - 1, argv + 1);
}

}  // namespace
}  // namespace eas::bench

int main(int argc, char** argv) {
    try {
        return eas::bench::main_of(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "scheduler_bench: %s\n", e.what());
        return 1;
    }
}
