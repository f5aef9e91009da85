// Contests: the library and others do the same work in turns, in one process, so that whatever else
// the machine does meanwhile slows all of them alike. Google Benchmark runs and times the rounds;
// the result is a row of a table: medians, and ratios to the floor of the same round.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace eas::bench {

/// Does the work once and answers how long it took, in ns, without what it took to set it up.
using Work = std::function<double()>;

struct Contender {
    std::string name;
    Work work;
};

/// The time that `work` takes, ns.
double timed(const std::function<void()>& work);

struct Contest {
    std::string name;
    double goal = 0;   ///< highest accepted ratio of the library to the floor; 0: none
    int rounds = 100;  ///< of a full run
    double per = 1;    ///< units of work in a round: the table shows the time of one
    /// Called once, before the first round. The library comes first, the floor second.
    std::function<std::vector<Contender>()> contenders;
};

void add(Contest contest);

/// A row whose figures are no times, in the order of the table.
void add_row(std::string name, std::function<std::string()> figures);

/// Takes --quick, for a few rounds only, out of the arguments.
void take_options(int& argc, char** argv);
bool is_quick();

/// Runs the contests that were added and prints their rows. Arguments: those of Google Benchmark.
/// Returns main()'s result: 1 when a contest failed; a goal that is missed is shown, and no
/// failure.
int run(int argc, char** argv);

/// The median time of a round that was run before, ns; 0 without one.
double median(const std::string& contest, std::size_t contender);

/// The middle of `values`, or of another share of them when sorted.
double quantile(std::vector<double> values, double share = 0.5);

}  // namespace eas::bench
