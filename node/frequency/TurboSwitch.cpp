#include "node/frequency/TurboSwitch.h"

#include "node/files/PseudoFile.h"

namespace eas::node {
namespace {

const char* path_of(TurboSwitch::Kind kind) {
    return kind == TurboSwitch::Kind::boost ? "/sys/devices/system/cpu/cpufreq/boost"
                                            : "/sys/devices/system/cpu/intel_pstate/no_turbo";
}

const char* written(const TurboSwitch& state) {
    return state.on == (state.kind == TurboSwitch::Kind::boost) ? "1" : "0";
}

}  // namespace

TurboSwitch read_turbo_switch() {
    for (const auto kind : {TurboSwitch::Kind::no_turbo, TurboSwitch::Kind::boost}) {
        const auto value = read_number(path_of(kind));
        if (value && *value >= 0 && *value <= 1)
            return {kind, (value == 1) == (kind == TurboSwitch::Kind::boost)};
    }
    return {};
}

bool set_turbo_switch(const TurboSwitch& wanted, Problem& problem) {
    if (wanted.kind == TurboSwitch::Kind::none || read_turbo_switch() == wanted)
        return true;
    const std::string path = path_of(wanted.kind), text = written(wanted);
    const int error = write_text(path, text);
    if (error == 0 && read_turbo_switch() == wanted)
        return true;
    problem = file_problem(-1, path, error,
                           error != 0 ? "\"" + text + "\" was refused"
                                      : "\"" + text + "\" was written, but does not stand there");
    return false;
}

}  // namespace eas::node
