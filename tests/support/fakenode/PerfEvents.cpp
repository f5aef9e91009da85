#include "tests/support/fakenode/PerfEvents.h"

#include <fnmatch.h>
#include <linux/perf_event.h>

#include <algorithm>
#include <cerrno>
#include <random>

namespace eas::fake {
namespace {

constexpr int first_dynamic_type = 6;
constexpr double missed_part = 0.6;  // of the lines; prefetches and write-backs are no misses
constexpr double read_part = 2.0 / 3;

bool has(const std::vector<int>& list, int number) {
    return std::find(list.begin(), list.end(), number) != list.end();
}

/// Generic events of a core, by id; others are not supported.
const char* quantity_of(uint64_t id) {
    constexpr const char* names[] = {
        "cycles", "instructions", "none",  "cache-misses", "none",
        "none",   "none",         nullptr, nullptr,        "reference-cycles"};
    return id < std::size(names) ? names[id] : nullptr;
}

}  // namespace

PerfEvents::PerfEvents(const NodeShape& shape, NodeState& state, const Workload& workload,
                       const NodeCpus& cpus, TreeEntry& root)
    : shape_(shape), state_(state), work_(workload), cpus_(cpus) {
    const int offset = static_cast<int>(std::random_device()() % 100);
    root.each("sys/bus/event_source/devices", "", [&](const std::string& name, TreeEntry& folder) {
        add_pmu(name, folder, offset, shape);
    });
}

void PerfEvents::add_pmu(const std::string& name, TreeEntry& folder, int offset,
                         const NodeShape& shape) {
    int type = static_cast<int>(folder.number("type", -1));
    if (type < 0)
        return;
    type += type >= first_dynamic_type ? offset : 0;
    folder.find("type")->text = std::to_string(type) + "\n";
    const auto slots = shape.slots.find(name);
    Pmu& pmu = pmus_[static_cast<uint32_t>(type)];
    pmu = {name, cpu_list(folder.value("cpumask")), cpu_list(folder.value("cpus")),
           name.rfind("cpu", 0) == 0 || name.rfind("armv8", 0) == 0,
           slots == shape.slots.end() ? 0 : slots->second};
    // A smaller cut of a shape lacks some of the CPUs that its boxes name.
    const auto last = std::upper_bound(pmu.cpumask.begin(), pmu.cpumask.end(),
                                       static_cast<int>(cpus_.all().size()) - 1);
    pmu.cpumask.erase(last, pmu.cpumask.end());
    // The kernel moves a box to another CPU of its socket when its own goes offline.
    folder.attach("cpumask", [this, &pmu] {
        std::vector<int> mask;
        for (const int cpu : pmu.cpumask)
            if (const int now = cpus_.cpu_of(cpus_.at(cpu).socket, cpu); now >= 0)
                mask.push_back(now);
        std::sort(mask.begin(), mask.end());
        return list_text(mask);
    });
}

int PerfEvents::open(const Counter& counter, int leader) {
    Event event{};
    event.cpu = counter.cpu;
    event.socket = -1;
    event.leader = leader;
    if (const int error = choose(counter, event))
        return -error;
    if (const int error = leader >= 0 ? check_group(event, leader) : 0)
        return -error;
    fold_box(event);
    event.on = counter.attr.disabled == 0 || counter.attr.enable_on_exec != 0;
    event.base = event.total();
    event.folded = work_.seconds();
    events_.push_back(std::move(event));
    return static_cast<int>(events_.size()) - 1;
}

/// Finds what the event counts; an errno if nothing does.
int PerfEvents::choose(const Counter& counter, Event& event) const {
    const perf_event_attr& attr = counter.attr;
    if ((counter.pid == -1 && counter.cpu == -1) ||
        (counter.cpu >= 0 && !cpus_.is_possible(counter.cpu)))
        return EINVAL;
    if (counter.cpu >= 0 && !cpus_.is_online(counter.cpu))
        return ENODEV;
    if (attr.type == PERF_TYPE_SOFTWARE) {
        const bool clock =
            attr.config == PERF_COUNT_SW_CPU_CLOCK || attr.config == PERF_COUNT_SW_TASK_CLOCK;
        event.total = per_cpu(clock ? "busy-time" : "none", event, 1);
        return 0;
    }
    if (attr.type == PERF_TYPE_HARDWARE || attr.type == PERF_TYPE_HW_CACHE)
        return choose_generic(counter, event);
    const auto found = pmus_.find(attr.type);
    if (found == pmus_.end())
        return ENOENT;
    event.pmu = &found->second;
    if (!event.pmu->is_core)
        return choose_box(counter, event);
    event.total = per_cpu("none", event, 1);
    return event.cpu >= 0 && core_pmu(event.cpu) != event.pmu ? ENOENT : 0;
}

const PerfEvents::Pmu* PerfEvents::core_pmu(int cpu) const {
    for (const auto& [type, pmu] : pmus_)
        if (pmu.is_core && (pmu.cpus.empty() || cpu < 0 || has(pmu.cpus, cpu)))
            return &pmu;
    return nullptr;
}

/// Of a process, a plain event counts on the first kind of core only.
int PerfEvents::choose_generic(const Counter& counter, Event& event) const {
    const perf_event_attr& attr = counter.attr;
    const auto type = static_cast<uint32_t>(attr.config >> 32);
    const uint64_t id = attr.config & 0xffffffff;
    const auto named = pmus_.find(type);
    event.pmu = type == 0 ? core_pmu(event.cpu) : named != pmus_.end() ? &named->second : nullptr;
    if (event.pmu == nullptr || !event.pmu->is_core ||
        (event.cpu >= 0 && core_pmu(event.cpu) != event.pmu))
        return ENOENT;
    const bool misses = (id == 0x10002 || id == 0x10102) && shape_.vendor != "AuthenticAMD";
    const char* quantity = quantity_of(id);
    if (attr.type == PERF_TYPE_HW_CACHE)
        quantity = misses ? "cache-misses" : nullptr;
    // AMD's processors count these from Zen 4 on.
    if (id == PERF_COUNT_HW_REF_CPU_CYCLES && shape_.vendor == "AuthenticAMD" && shape_.family < 25)
        quantity = nullptr;
    if (quantity == nullptr)
        return ENOENT;
    event.total = per_cpu(quantity, event, 1);
    return 0;
}

/// Events that are not a core's: refused but for a rule's code, and counted by the box of the CPU's
/// socket whichever CPU asks.
int PerfEvents::choose_box(const Counter& counter, Event& event) const {
    const perf_event_attr& attr = counter.attr;
    const auto rule =
        std::find_if(shape_.counts.begin(), shape_.counts.end(), [&](const CountRule& one) {
            return one.config == attr.config &&
                   ::fnmatch(one.pmu.c_str(), event.pmu->name.c_str(), 0) == 0;
        });
    if (rule == shape_.counts.end() || attr.sample_period != 0)
        return EINVAL;
    if (event.pmu->cpumask.empty()) {
        event.total = per_cpu(rule->quantity, event, rule->factor);
        return 0;
    }
    if (counter.pid != -1 || counter.cpu < 0 || attr.exclude_user != 0 ||
        attr.exclude_kernel != 0 || attr.exclude_hv != 0 || attr.exclude_idle != 0)
        return EINVAL;
    event.socket = cpus_.at(counter.cpu).socket;
    const auto& mask = event.pmu->cpumask;
    if (std::none_of(mask.begin(), mask.end(),
                     [&](int cpu) { return cpus_.at(cpu).socket == event.socket; }))
        return ENODEV;
    event.total = per_socket(*rule, event);
    return 0;
}

/// A group is of one CPU and, but for software's, of one PMU; it counts as a whole.
int PerfEvents::check_group(const Event& event, int leader) const {
    const Event& first = events_[static_cast<size_t>(leader)];
    const auto per_core = [](const Event& one) { return one.pmu == nullptr || one.socket < 0; };
    if (first.leader >= 0 || first.closed || first.socket != event.socket ||
        (event.socket < 0 && first.cpu != event.cpu) ||
        (first.pmu != event.pmu && !(per_core(first) && per_core(event))))
        return EINVAL;
    const auto size = 2 + std::count_if(events_.begin(), events_.end(), [leader](const Event& one) {
                          return one.leader == leader && !one.closed;
                      });
    return event.pmu != nullptr && event.pmu->slots != 0 && size > event.pmu->slots ? EINVAL : 0;
}

std::function<double()> PerfEvents::per_cpu(const std::string& quantity, const Event& event,
                                            double factor) const {
    const auto value = [this, quantity](const CpuWork& work) {
        return quantity == "cycles"             ? work.cycles
               : quantity == "instructions"     ? work.instructions
               : quantity == "reference-cycles" ? work.reference_cycles
               : quantity == "cache-misses"     ? work.lines * missed_part
               : quantity == "busy-time"        ? work.busy_seconds * 1e9
               : quantity == "tsc"              ? work_.seconds() * work_.nominal_hz()
                                                : 0;
    };
    if (event.cpu >= 0)
        return [=, cpu = event.cpu] { return factor * value(work_.of_cpu(cpu)); };
    return [=, pmu = event.pmu] {
        double sum = 0;
        for (int cpu = 0; cpu < static_cast<int>(cpus_.all().size()); ++cpu)
            if (pmu == nullptr || pmu->cpus.empty() || has(pmu->cpus, cpu))
                sum += factor * value(work_.of_cpu(cpu));
        return sum;
    };
}

/// The box's part of what its socket does.
std::function<double()> PerfEvents::per_socket(const CountRule& rule, const Event& event) const {
    double boxes = 0;
    for (const auto& [type, pmu] : pmus_)
        if (::fnmatch(rule.pmu.c_str(), pmu.name.c_str(), 0) == 0)
            boxes += std::any_of(pmu.cpumask.begin(), pmu.cpumask.end(),
                                 [&](int cpu) { return cpus_.at(cpu).socket == event.socket; });
    const double factor = rule.factor / boxes;
    const auto share = shape_.shares.find(rule.quantity);
    const double part = share == shape_.shares.end() ? 1 : share->second;
    // The platform's energy is the first socket's to tell.
    const bool first = event.socket == cpus_.sockets().front();
    return [=, quantity = rule.quantity, socket = event.socket] {
        const SocketWork work = work_.of_socket(socket);
        return factor * (quantity == "lines"    ? work.lines
                         : quantity == "reads"  ? work.lines * read_part
                         : quantity == "writes" ? work.lines * (1 - read_part)
                         : quantity == "psys"   ? part * first * work_.all_sockets().joules
                                                : part * work.joules);
    };
}

/// The part of the time that an event has a counter for itself.
double PerfEvents::part_of(const Event& event, const Counter& counter) const {
    double part = state_.running_percent / 100.0 * counter.running_percent / 100.0;
    if (event.pmu == nullptr || event.pmu->slots == 0)
        return part;
    const auto rivals = std::count_if(events_.begin(), events_.end(), [&event](const Event& other) {
        return other.pmu == event.pmu && other.socket == event.socket && other.on && !other.closed;
    });
    return part *
           std::min(1.0, static_cast<double>(event.pmu->slots) / static_cast<double>(rivals));
}

/// Adds what was counted since the last time, at the present part of the time.
void PerfEvents::fold(size_t number) {
    Event& event = events_[number];
    const double now = work_.seconds(), total = event.total();
    const bool led = event.leader < 0 || events_[static_cast<size_t>(event.leader)].on;
    if (event.on && led && !event.dead) {
        const double part = part_of(event, state_.counters.rows[number]);
        event.counted += (total - event.base) * part;
        event.enabled += now - event.folded;
        event.running += (now - event.folded) * part;
    }
    event.folded = now;
    event.base = total;
}

void PerfEvents::fold_box(const Event& of) {
    for (size_t i = 0; i < events_.size(); ++i)
        if (of.pmu != nullptr && of.pmu->slots != 0 && events_[i].pmu == of.pmu &&
            events_[i].socket == of.socket)
            fold(i);
}

void PerfEvents::close(int number) {
    if (number < 0 || number >= static_cast<int>(events_.size()))
        return;
    Event& event = events_[static_cast<size_t>(number)];
    fold_box(event);
    event.closed = true;
}

std::vector<uint64_t> PerfEvents::words(int number) {
    if (number < 0 || number >= static_cast<int>(events_.size()))
        return {};
    const auto first = static_cast<size_t>(number);
    const auto format = state_.counters.rows[first].attr.read_format;
    const bool group = (format & PERF_FORMAT_GROUP) != 0;
    std::vector<uint64_t> values, times;
    for (size_t i = first; i < (group ? events_.size() : first + 1); ++i) {
        const Event& event = events_[i];
        if (i != first && (event.leader != number || event.closed || event.dead))
            continue;
        fold(i);
        const auto& fixed = state_.counters.rows[i].words;
        const auto word = [&](double value, size_t of) {
            return work_.active() ? static_cast<uint64_t>(value) : fixed[of];
        };
        values.push_back(word(event.counted, 0));
        if (i == first && (format & PERF_FORMAT_TOTAL_TIME_ENABLED) != 0)
            times.push_back(word(event.enabled * 1e9, 1));
        if (i == first && (format & PERF_FORMAT_TOTAL_TIME_RUNNING) != 0)
            times.push_back(word(event.running * 1e9, 2));
    }
    if (group)
        times.insert(times.begin(), values.size());
    values.insert(group ? values.begin() : values.end(), times.begin(), times.end());
    return values;
}

bool PerfEvents::switch_on(int number, bool on) {
    if (number < 0 || number >= static_cast<int>(events_.size()))
        return false;
    const auto first = static_cast<size_t>(number);
    for (size_t i = first; i < events_.size(); ++i)
        if (i == first || events_[i].leader == number)
            fold(i);
    events_[first].on = on;
    return true;
}

void PerfEvents::follow_cpus() {
    for (size_t i = 0; i < events_.size(); ++i) {
        const Event& event = events_[i];
        if (event.cpu < 0 || event.socket >= 0 || event.closed || cpus_.is_online(event.cpu))
            continue;
        fold(i);
        events_[i].dead = true;
    }
}

}  // namespace eas::fake
