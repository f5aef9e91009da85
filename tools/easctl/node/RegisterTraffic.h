// Memory traffic by the registers of processors of models 26 to 62, which this process programs:
// the last resort, where the kernel has no PMU for the memory controllers. They belong to the node:
// one program at a time.
#pragma once

#include <memory>
#include <string>

namespace easctl {

class RegisterTraffic {
  public:
    /// Why the registers cannot serve here; empty: they can. Programs nothing.
    static std::string why_not();
    /// Programs the registers; null, with the reason, where they cannot serve. Throws Failure when
    /// they are in use already, unless `force`.
    static std::unique_ptr<RegisterTraffic> start(bool force, std::string& reason);
    RegisterTraffic() = default;
    ~RegisterTraffic();
    RegisterTraffic(const RegisterTraffic&) = delete;
    RegisterTraffic& operator=(const RegisterTraffic&) = delete;

    /// Since the start.
    [[nodiscard]] double bytes() const;
};

}  // namespace easctl
