#include "adapters/job/JobKeeper.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "adapters/job/ChildCall.h"
#include "adapters/job/EasLibrary.h"
#include "adapters/job/FrequencyGuard.h"

namespace eas::job {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds longest_sleep{30000};  // between looks whether the job's record is there
constexpr milliseconds first_look{1000};      // for a frequency that was called off; then doubled

// By enum easnode_extent, of energy.
constexpr std::array<const char*, 6> extents{"",         "node",     "packages+memory",
                                             "packages", "platform", "modules"};

std::string meter_of(const easnode_figure& energy) {
    const auto extent = static_cast<std::size_t>(energy.extent);
    const std::string covers = extent < extents.size() ? extents[extent] : "";
    return energy.source + ("," + covers);
}

std::optional<double> value_of(const easnode_figure& figure) {
    return figure.quality == EASNODE_MISSING ? std::nullopt : std::optional(figure.value);
}

/// The figures of a node; the first one that is missing gives the reason.
RunRecord figures_of(const easnode_reading& reading) {
    RunRecord figures;
    figures.seconds = static_cast<double>(reading.time_ns) / 1e9;
    figures.joules = value_of(reading.energy);
    figures.cycles = value_of(reading.cycles);
    figures.instructions = value_of(reading.instructions);
    figures.bytes = value_of(reading.memory);
    if (figures.joules)
        figures.meter = meter_of(reading.energy);
    const std::pair<const char*, const easnode_figure*> all[] = {
        {"joules", &reading.energy},
        {"cycles", &reading.cycles},
        {"instructions", &reading.instructions},
        {"memory traffic", &reading.memory}};
    for (const auto& [name, figure] : all)
        if (figure->quality == EASNODE_MISSING && figures.reason.empty())
            figures.reason = std::string("no ") + name + ": " + figure->reason;
    return figures;
}

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

Descriptor stream() {
    Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made.is_open())
        throw std::runtime_error(std::string("no socket: ") + std::strerror(errno));
    return made;
}

Descriptor listen_at(const std::string& path) {
    Descriptor made = stream();
    const sockaddr_un address = address_of(path);
    ::unlink(path.c_str());
    if (::bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(made.get(), 1) != 0)
        throw std::runtime_error(std::string("the job's keeper: ") + std::strerror(errno));
    return made;
}

class Keeper {
  public:
    Keeper(const SiteSettings& settings, uint32_t job, const JobPlace& place, Scheduler& scheduler)
        : settings_(settings),
          job_(job),
          place_(place),
          scheduler_(scheduler),
          folder_(settings.state),
          library_(settings.node_library),
          door_(listen_at(folder_.socket_of(job))),
          meter_(open_meter()) {
        read();
    }

    void run() {
        const auto start = Clock::now();
        auto look = place_.has_others() ? start + first_look : Clock::time_point::max();
        while (!called_within(std::min(sleep_, until(look)))) {
            if (!folder_.read(job_))
                return;
            read();
            if (Clock::now() >= look)
                look = look_around() ? Clock::time_point::max() : start + 2 * (look - start);
        }
        finish();
    }

  private:
    using Meter = std::unique_ptr<easnode_meter, decltype(&::easnode_meter_close)>;

    [[nodiscard]] Meter open_meter() const {
        easnode_meter_options options{};
        options.size = sizeof options;
        if (!settings_.energy_sources.empty())
            options.energy_sources = settings_.energy_sources.c_str();
        easnode_meter* opened = nullptr;
        const int code = library_.meter_open(&options, &opened);
        if (code != EASNODE_OK)
            throw std::runtime_error(std::string("the meter: ") + library_.error_text(code));
        return {opened, library_.meter_close};
    }

    static milliseconds until(Clock::time_point when) {
        if (when == Clock::time_point::max())
            return longest_sleep;
        return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(when - Clock::now()));
    }

    bool called_within(milliseconds time) {
        pollfd ready{door_.get(), POLLIN, 0};
        return ::poll(&ready, 1, static_cast<int>(time.count())) > 0;
    }

    /// The figures now. Counters that wrap are read twice as often as they must be.
    RunRecord read() {
        easnode_reading reading{};
        reading.size = sizeof reading;
        const int code = library_.meter_read(meter_.get(), &reading);
        if (code != EASNODE_OK)
            throw std::runtime_error(std::string("the meter: ") + library_.error_text(code));
        for (const easnode_figure* figure : {&reading.energy, &reading.memory})
            if (figure->read_within_ns != 0)
                sleep_ = std::min(sleep_, milliseconds(figure->read_within_ns / 2000000));
        return figures_of(reading);
    }

    /// True when there is no more to look for.
    bool look_around() {
        try {
            const std::optional<RunRecord> now = scheduler_.announced(job_);
            if (!now || now->outcome != "failed")
                return false;
            const Descriptor lock = folder_.lock(settings_.patience());
            if (const auto record = folder_.read(job_); record && record->disturbed.empty())
                give_up_frequency(settings_, folder_, *record, "called off: " + now->reason);
            return true;
        } catch (const std::exception&) {  // who does not answer now may do so later
            return false;
        }
    }

    void finish() {
        const Descriptor caller(::accept4(door_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        ::alarm(static_cast<unsigned>(settings_.limit));
        folder_.append(job_, line::figures(read()));
        ::send(caller.get(), "+", 1, MSG_NOSIGNAL);
    }

    SiteSettings settings_;
    uint32_t job_;
    JobPlace place_;
    Scheduler& scheduler_;
    StateFolder folder_;
    NodeLibrary library_;
    Descriptor door_;
    Meter meter_;
    milliseconds sleep_ = longest_sleep;
};

void keep(const SiteSettings& settings, uint32_t job, const JobPlace& place, Scheduler& scheduler,
          int channel) {
    const auto reply = [channel](const std::string& text) {
        ::send(channel, text.data(), text.size(), MSG_NOSIGNAL);
    };
    try {
        ::alarm(static_cast<unsigned>(settings.limit));
        Keeper keeper(settings, job, place, scheduler);
        ::alarm(0);
        reply("+");
        keeper.run();
    } catch (const std::exception& error) {
        reply(error.what());
    }
}

}  // namespace

void start_keeper(const SiteSettings& settings, uint32_t job, const JobPlace& place,
                  Scheduler& scheduler) {
    const Companion keeper([&](int channel) { keep(settings, job, place, scheduler, channel); });
    const std::string answer = keeper.answer(settings.limit);
    if (answer != "+")
        throw std::runtime_error(answer.empty() ? "the node's meter does not answer" : answer);
}

void stop_keeper(const StateFolder& folder, uint32_t job, int seconds) {
    const Descriptor call = stream();
    const sockaddr_un address = address_of(folder.socket_of(job));
    char word = 0;
    pollfd ready{call.get(), POLLIN, 0};
    if (::connect(call.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("the job's keeper has gone");
    if (::poll(&ready, 1, seconds * 1000) <= 0 || ::recv(call.get(), &word, 1, 0) != 1)
        throw std::runtime_error("the node's meter does not answer");
}

bool covers_processors_alone(const std::string& meter) {
    const std::string covers = meter.substr(std::min(meter.find(',') + 1, meter.size()));
    return covers == "packages" || covers == "packages+memory";
}

}  // namespace eas::job
