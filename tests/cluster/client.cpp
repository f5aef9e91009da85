// Schedulers and nodes at work: processes that call the five functions of the installed library.
//
//   cluster_client storm COUNT        COUNT jobs start at the same moment, each in a process of its
//                                     own: initialise, select; ends with 1 if one fails
//   cluster_client work COUNT FOLDER  COUNT schedulers generate, query, select and remove until
//                                     FOLDER/stop is there; what each was told goes to
//                                     FOLDER/told.N
//
// The cluster is the sample one; the threshold file is named by EASCTL_THRESHOLDS.
#include <eas/interface.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr int default_khz = 2300000;
constexpr int frequencies = 12;

char* text(const std::string& s) {
    return const_cast<char*>(s.c_str());
}

double now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

int initialize() {
    const char* thresholds = std::getenv("EASCTL_THRESHOLDS");
    return eas_initialize(text("sample"), default_khz,
                          text(thresholds != nullptr ? thresholds : ""));
}

int generate(const std::string& user, const std::string& tag, const std::string& job) {
    double counters[] = {2.4e12, 1.9e12, 1.1e13};
    return eas_generate_tag(text("sample"), default_khz, text(user), text(tag), counters, text(job),
                            1200, 270.0);
}

int select(const std::string& user, const std::string& tag) {
    int khz = 0;
    double time_change = 0;
    return eas_auto_select_frequency(text("sample"), default_khz, text(user), text(tag),
                                     text("minimize_energy"), &khz, &time_change);
}

int remove(const std::string& user, const std::string& tag) {
    int count = 0;
    char** users = nullptr;
    char** names = nullptr;
    const int code =
        eas_remove_tag(text("sample"), default_khz, text(user), text(tag), &count, &users, &names);
    for (int i = 0; i < count; ++i) {
        std::free(users[i]);
        std::free(names[i]);
    }
    std::free(users);
    std::free(names);
    return code;
}

/// `rows` is the number of the tag's rows, 0 where there is no such tag.
int query(const std::string& user, const std::string& tag, int& rows) {
    int count = 0;
    energyPolicyTag_t* tags = nullptr;
    const int code =
        eas_query_tag(text("sample"), default_khz, text(user), text(tag), &count, &tags);
    rows = 0;
    for (int i = 0; i < count; ++i) {
        rows += tags[i].num_freq;
        for (void* part : std::initializer_list<void*>{
                 tags[i].energy_tag_name, tags[i].job_id, tags[i].user_name, tags[i].cluster_name,
                 tags[i].frequencies, tags[i].predict_power, tags[i].energy_saving_pct,
                 tags[i].predict_elapse_time, tags[i].perf_degrad_pct})
            std::free(part);
    }
    std::free(tags);
    return code;
}

/// Runs `work` in `count` processes that begin together, each with its number; what they return
/// comes back in any order.
template <typename Result>
std::vector<Result> at_once(int count, const std::function<Result(int)>& work) {
    int gate[2];
    int answers[2];
    if (::pipe(gate) != 0 || ::pipe(answers) != 0)
        throw std::runtime_error("pipe");
    std::fflush(stdout);
    for (int i = 0; i < count; ++i) {
        const pid_t child = ::fork();
        if (child < 0)
            throw std::runtime_error("fork");
        if (child == 0) {
            ::close(gate[1]);
            char open = 0;
            (void)!::read(gate[0], &open, 1);
            const Result result = work(i);
            ::_exit(::write(answers[1], &result, sizeof(result)) == sizeof(result) ? 0 : 1);
        }
    }
    ::close(answers[1]);
    ::close(gate[0]);
    ::close(gate[1]);
    std::vector<Result> results;
    Result result{};
    while (::read(answers[0], &result, sizeof(result)) == sizeof(result))
        results.push_back(result);
    ::close(answers[0]);
    while (::wait(nullptr) > 0) {
    }
    if (results.size() != static_cast<std::size_t>(count))
        throw std::runtime_error("a process died");
    return results;
}

struct Start {
    int code;
    double seconds;
};

int storm(int count) {
    const std::string user = "storm";
    if (initialize() != EAS_OK || generate(user, "solve", "1") != EAS_OK)
        throw std::runtime_error("the tag of the storm cannot be made");
    const double begin = now();
    auto starts = at_once<Start>(count, [&user](int) {
        const double start = now();
        const int ready = initialize();
        return Start{ready != EAS_OK ? 10 * ready : select(user, "solve"), now() - start};
    });
    const double seconds = now() - begin;
    std::sort(starts.begin(), starts.end(),
              [](const Start& a, const Start& b) { return a.seconds < b.seconds; });
    const auto failed = std::count_if(starts.begin(), starts.end(),
                                      [](const Start& start) { return start.code != EAS_OK; });
    std::printf("%d starts, %d failed, %.0f a second, median %.2f s, longest %.2f s\n", count,
                static_cast<int>(failed), count / seconds, starts[starts.size() / 2].seconds,
                starts.back().seconds);
    return failed == 0 ? 0 : 1;
}

/// What one scheduler went through.
struct Account {
    int calls = 0;
    int failed = 0;
    int made = 0;
    int removed = 0;
    int unkept = 0;    // reported as made, but not there when read back
    int vanished = 0;  // read back before, and then not there: must not be
    double longest_call = 0;
    double longest_outage = 0;
};

class Scheduler {
  public:
    Scheduler(int number, const std::string& folder)
        : user_("user" + std::to_string(number)),
          folder_(folder),
          told_(folder + "/told." + std::to_string(number)) {}

    Account work() {
        while (call([] { return initialize(); }) != EAS_OK && !stopped()) {
        }
        for (int i = 0; !stopped(); ++i)
            one_tag(i);
        return account_;
    }

  private:
    [[nodiscard]] bool stopped() const { return ::access((folder_ + "/stop").c_str(), F_OK) == 0; }

    /// `refusal` is an answer like success: of a tag that somebody else makes.
    template <typename Call>
    int call(Call function, int refusal = EAS_OK) {
        const double start = now();
        const int code = function();
        const double end = now();
        ++account_.calls;
        account_.longest_call = std::max(account_.longest_call, end - start);
        if (code == EAS_OK || code == EAS_TAG_EXISTS || code == refusal) {
            account_.longest_outage = std::max(account_.longest_outage, end - last_success_);
            last_success_ = end;
        } else {
            ++account_.failed;
        }
        return code;
    }

    /// Asks until there is an answer, for at most two minutes: the rows of a tag.
    int rows_of(const std::string& user, const std::string& tag) {
        const double limit = now() + 120;
        int rows = 0;
        while (call([&] { return query(user, tag, rows); }) != EAS_OK) {
            if (now() > limit)
                return -1;
            ::usleep(10000);
        }
        return rows;
    }

    void one_tag(int i) {
        const std::string tag = "tag" + std::to_string(i);
        const int code = call([&] { return generate(user_, tag, user_); });
        const bool made = rows_of(user_, tag) == frequencies;
        account_.unkept += code == EAS_OK && !made ? 1 : 0;
        if (made) {
            ++account_.made;
            tell("made", tag);
            if (call([&] { return select(user_, tag); }) != EAS_OK && rows_of(user_, tag) == 0)
                ++account_.vanished;
        }
        // All schedulers want this one at about the same moment; one of them gets it.
        call([&] { return generate("all", tag, user_); }, EAS_STORE_FAILED);
        if (i % 3 == 0)
            take_back(tag);
    }

    void take_back(const std::string& tag) {
        tell("unsure", tag);
        if (call([&] { return remove(user_, tag); }) == EAS_OK && rows_of(user_, tag) == 0) {
            ++account_.removed;
            tell("gone", tag);
        }
    }

    void tell(const char* what, const std::string& tag) {
        told_ << user_ << '/' << tag << '\t' << what << std::endl;
    }

    std::string user_;
    std::string folder_;
    std::ofstream told_;
    Account account_;
    double last_success_ = now();
};

int work(int count, const std::string& folder) {
    const auto accounts =
        at_once<Account>(count, [&folder](int number) { return Scheduler(number, folder).work(); });
    Account sum;
    for (const Account& one : accounts) {
        sum.calls += one.calls;
        sum.failed += one.failed;
        sum.made += one.made;
        sum.removed += one.removed;
        sum.unkept += one.unkept;
        sum.vanished += one.vanished;
        sum.longest_call = std::max(sum.longest_call, one.longest_call);
        sum.longest_outage = std::max(sum.longest_outage, one.longest_outage);
    }
    std::printf(
        "%d calls, %d failed; %d tags made, %d removed, %d not kept, %d vanished; longest "
        "call %.1f s, longest time without a success %.1f s\n",
        sum.calls, sum.failed, sum.made, sum.removed, sum.unkept, sum.vanished, sum.longest_call,
        sum.longest_outage);
    return sum.made > 0 && sum.removed > 0 && sum.vanished == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 2 ? argv[1] : "";
    const int count = argc > 2 ? std::atoi(argv[2]) : 0;
    try {
        if (what == "storm" && count > 0)
            return storm(count);
        if (what == "work" && count > 0 && argc > 3)
            return work(count, argv[3]);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "cluster_client: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr, "usage: cluster_client storm COUNT | work COUNT FOLDER\n");
    return 2;
}
