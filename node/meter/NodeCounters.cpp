// Energy counters of the whole node: that of its own controller (pm_counters), and that of the
// platform's energy meter.
#include "node/meter/NodeCounters.h"

#include <array>

#include "node/files/KeptFile.h"
#include "node/files/PseudoFile.h"
#include "node/meter/Source.h"

namespace eas::node {
namespace {

class NodeCounter : public Source {
  public:
    bool open(std::string& reason) {
        coverage_ = {EASNODE_NODE, "node energy counter, accelerators included", 0};
        KeptFile::Buffer buffer;
        const auto text = energy_.read(buffer);
        const auto joules = text ? parse_joules(*text) : std::nullopt;
        if (!joules) {
            reason = text ? energy_.path() + " says " + quoted(*text) : energy_.reason();
            return false;
        }
        first_ = last_ = *joules;
        started_ = startup_.number();
        return true;
    }

    void read(Nanoseconds, Result& result) override {
        KeptFile::Buffer buffer;
        const auto text = energy_.read(buffer);
        const auto joules = text ? parse_joules(*text) : std::nullopt;
        if (!joules) {
            result.end(text ? energy_.path() + " says " + quoted(*text) : energy_.reason());
        } else if (*joules < last_ || (startup_.is_open() && startup_.number() != started_)) {
            result.end(energy_.path() + " was restarted");
        } else {
            last_ = *joules;
            result.values[0] = static_cast<double>(last_ - first_);
        }
    }

  private:
    KeptFile energy_{"/sys/cray/pm_counters/energy"};
    KeptFile startup_{"/sys/cray/pm_counters/startup"};
    std::uint64_t first_ = 0;
    std::uint64_t last_ = 0;
    std::optional<std::uint64_t> started_;
};

// The device with the sensors of the whole node, then its fall-back.
constexpr std::array<const char*, 2> platform_meters = {
    "/sys/devices/platform/qpx.1/energy1_input", "/sys/devices/platform/qpx.0/energy1_input"};

class PlatformMeter : public Source {
  public:
    bool open(std::string& reason) {
        coverage_ = {EASNODE_NODE, "the platform's energy meter", 0};
        if (!energy_.is_open())
            energy_ = KeptFile(platform_meters[1]);
        const auto microjoules = energy_.number();
        if (!microjoules || *microjoules == 0) {
            reason = microjoules ? energy_.path() + " stands at 0" : energy_.reason();
            return false;
        }
        first_ = last_ = *microjoules;
        return true;
    }

    void read(Nanoseconds, Result& result) override {
        const auto microjoules = energy_.number();
        if (!microjoules || *microjoules < last_) {
            result.end(microjoules ? energy_.path() + " was restarted" : energy_.reason());
            return;
        }
        last_ = *microjoules;
        result.values[0] = static_cast<double>(last_ - first_) * micro;
    }

  private:
    KeptFile energy_{platform_meters[0]};
    std::uint64_t first_ = 0;
    std::uint64_t last_ = 0;
};

}  // namespace

std::optional<std::uint64_t> parse_joules(std::string_view text) {
    const auto words = words_of(text);
    const bool dated = words.size() == 4 && words[3] == "us" && parse_number(words[2]);
    if ((words.size() != 2 && !dated) || words[1] != "J")
        return std::nullopt;
    const auto joules = parse_number(words[0]);
    return joules && *joules >= 0 ? std::optional<std::uint64_t>(*joules) : std::nullopt;
}

std::unique_ptr<Source> open_node_counter(const Request&, std::string& reason) {
    auto source = std::make_unique<NodeCounter>();
    return source->open(reason) ? std::move(source) : nullptr;
}

std::unique_ptr<Source> open_platform_meter(const Request&, std::string& reason) {
    auto source = std::make_unique<PlatformMeter>();
    return source->open(reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
