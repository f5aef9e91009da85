// A C++ client of the installed library; it also defines a function of the library's own name, as
// a host program may.
#include <eas/EasMisc.h>
#include <eas/EnergyUtil.h>
#include <eas/interface.h>

#include <cstdio>
#include <vector>

namespace {
int captured_calls = 0;
}

extern "C" int restore_priv(void) {
    ++captured_calls;
    return 0;
}

int main() {
    int selected = 0;
    double change = 0.0;
    char text[] = "t";
    char policy[] = "minimize_energy";
    const int selection =
        eas_auto_select_frequency(text, 1, text, text, policy, &selected, &change);
    // Y = 1 + 2 X1 + 3 X2
    std::vector<double> y{1, 3, 4, 6, 11, 13, 20};
    std::vector<double> x1{0, 1, 0, 1, 2, 0, 5};
    std::vector<double> x2{0, 0, 1, 1, 2, 4, 3};
    std::vector<double> coefficients;
    EnergyUtil::cal_coefficients(y, x1, x2, coefficients);
    // It takes back the privileges by its own restore_priv.
    gethwrusage(-1, nullptr);
    const bool good = selection == EAS_NOT_INITIALIZED && coefficients.size() == 3 &&
                      extract_bits(0xF0, 7, 4) == 0xF && captured_calls == 0;
    if (!good) {
        std::fprintf(stderr, "selection %d, %zu coefficients, %d captured calls\n", selection,
                     coefficients.size(), captured_calls);
    }
    return good ? 0 : 1;
}
