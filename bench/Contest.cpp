#include "bench/Contest.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

namespace eas::bench {
namespace {

bool quick = false;
constexpr int quick_rounds = 3;
constexpr int warm_up_rounds = 2;

struct Result {
    std::vector<std::string> names;
    std::vector<std::vector<double>> times;  // by contender, by round; ns
    double goal = 0;
    double per = 1;
};

/// What the rounds gave, for the reporter: counters of Google Benchmark hold no distributions.
std::map<std::string, Result> results;

void play(benchmark::State& state, const Contest& contest) {
    const std::vector<Contender> contenders = contest.contenders();
    const std::size_t count = contenders.size();
    Result result;
    result.goal = contest.goal;
    result.per = contest.per;
    result.times.resize(count);
    for (const Contender& contender : contenders)
        result.names.push_back(contender.name);
    for (int round = 0; round < (contest.rounds > 10 ? warm_up_rounds : 0); ++round) {
        for (const Contender& contender : contenders)
            contender.work();
    }
    bool forward = true;
    for ([[maybe_unused]] auto _ : state) {
        for (std::size_t turn = 0; turn < count; ++turn) {
            // Nobody always follows the same one, or pays for the heap that another leaves behind.
            const std::size_t i = forward ? turn : count - 1 - turn;
            ::malloc_trim(0);
            result.times[i].push_back(contenders[i].work());
        }
        forward = !forward;
        state.SetIterationTime(result.times[0].back() / 1e9);
    }
    results[contest.name] = std::move(result);
}

std::vector<double> ratios_to_floor(const Result& result, std::size_t contender) {
    std::vector<double> ratios;
    for (std::size_t round = 0; round < result.times[1].size(); ++round)
        ratios.push_back(result.times[contender][round] / result.times[1][round]);
    return ratios;
}

std::string shown_time(double ns) {
    char text[32];
    const double magnitude = ns < 0 ? -ns : ns;
    if (magnitude < 1e3)
        std::snprintf(text, sizeof text, "%.1f ns", ns);
    else if (magnitude < 1e6)
        std::snprintf(text, sizeof text, "%.2f us", ns / 1e3);
    else if (magnitude < 1e9)
        std::snprintf(text, sizeof text, "%.2f ms", ns / 1e6);
    else
        std::snprintf(text, sizeof text, "%.2f s", ns / 1e9);
    return text;
}

void print_row(const std::string& name, const Result& result) {
    const double per = result.per;
    std::printf("%-34s %10s", name.c_str(), shown_time(quantile(result.times[0]) / per).c_str());
    if (result.times.size() < 2) {
        std::printf("\n");
        return;
    }
    const std::vector<double> ratios = ratios_to_floor(result, 0);
    const double ratio = quantile(ratios);
    std::printf(" %10s %6.2f %4.2f-%-5.2f", shown_time(quantile(result.times[1]) / per).c_str(),
                ratio, quantile(ratios, 0.25), quantile(ratios, 0.75));
    std::printf(" %5.2f", quantile(result.times[0], 0.0) / quantile(result.times[1], 0.0));
    if (result.goal > 0)
        std::printf("  %5.2f %-6s", result.goal, ratio <= result.goal ? "holds" : "MISSED");
    else
        std::printf("  %12s", "");
    for (std::size_t i = 2; i < result.times.size(); ++i)
        std::printf("  %s %.2f", result.names[i].c_str(), quantile(ratios_to_floor(result, i)));
    std::printf("\n");
}

class TableReporter : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context& /*context*/) override {
        std::printf("%-34s %10s %10s %6s %-10s %5s  %-12s  %s\n", "", "library", "floor", "ratio",
                    "quartiles", "min", "goal", "others, to the floor");
        return true;
    }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            std::string name = run.run_name.function_name;
            if (run.error_occurred) {
                std::printf("%-34s failed: %s\n", name.c_str(), run.error_message.c_str());
                failed = true;
            } else if (!run.report_label.empty()) {
                std::printf("%-34s %s\n", name.c_str(), run.report_label.c_str());
            } else {
                print_row(name, results[name]);
            }
            std::fflush(stdout);
        }
    }

    bool failed = false;
};

template <typename Body>
void guarded(benchmark::State& state, const Body& body) {
    try {
        body();
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
    }
}

std::vector<Contest>& contests() {
    static std::vector<Contest> all;
    return all;
}

void register_contest(const Contest& contest) {
    benchmark::RegisterBenchmark(
        contest.name.c_str(),
        [&contest](benchmark::State& state) { guarded(state, [&] { play(state, contest); }); })
        ->Iterations(quick ? std::min(contest.rounds, quick_rounds) : contest.rounds)
        ->UseManualTime();
}

}  // namespace

double timed(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
        .count();
}

double quantile(std::vector<double> values, double share) {
    if (values.empty())
        return 0;
    const auto last = static_cast<double>(values.size() - 1);
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(share * last + 0.5);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

bool is_quick() {
    return quick;
}

void add(Contest contest) {
    contests().push_back(std::move(contest));
}

void add_row(std::string name, std::function<std::string()> figures) {
    Contest row;
    row.name = std::move(name);
    row.rounds = 0;
    row.contenders = [figures = std::move(figures)] {
        return std::vector<Contender>{{figures(), nullptr}};
    };
    add(std::move(row));
}

double median(const std::string& contest, std::size_t contender) {
    const auto found = results.find(contest);
    return found == results.end() ? 0 : quantile(found->second.times.at(contender));
}

void take_options(int& argc, char** argv) {
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0)
            quick = true;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
}

int run(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    for (const Contest& contest : contests()) {
        if (contest.rounds > 0) {
            register_contest(contest);
            continue;
        }
        benchmark::RegisterBenchmark(contest.name.c_str(), [&contest](benchmark::State& state) {
            guarded(state, [&] { state.SetLabel(contest.contenders().front().name); });
            for ([[maybe_unused]] auto _ : state) {
            }
        })->Iterations(1);
    }
    TableReporter table;
    benchmark::RunSpecifiedBenchmarks(&table);
    return table.failed ? 1 : 0;
}

}  // namespace eas::bench
