// easctl model fit: known coefficients come back from measurements that were made from them, and
// what cannot be fitted is named with file and line.
#include <gmock/gmock.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/CoEffsFromFile.h"
#include "tests/support/ScratchFolder.h"
#include "tests/tools/Measurements.h"
#include "tests/tools/RunTool.h"

namespace {

namespace fs = std::filesystem;
using eas::test::coefficients;
using eas::test::kernels;
using eas::test::measurement_line;
using eas::test::run_easctl;
using ::testing::HasSubstr;

constexpr const char* header =
    "frequency_khz,kernel,remark,elapsed_s,power_w,cycles,instructions,memory_bytes";

class ModelFit : public ::testing::Test {
  protected:
    [[nodiscard]] std::string path(const char* name) const { return folder_.path(name); }

    void write(const std::vector<std::string>& lines) const {
        std::ofstream out(path("m.csv"));
        out << header << '\n';
        for (const std::string& line : lines)
            out << line << '\n';
    }

    /// Every kernel at every frequency, from the table of known coefficients.
    [[nodiscard]] static std::vector<std::string> good_lines() {
        std::vector<std::string> lines;
        for (const auto& row : coefficients)
            for (const auto& kernel : kernels)
                lines.push_back(measurement_line(kernel, row));
        return lines;
    }

    eas::test::ScratchFolder folder_;
};

TEST_F(ModelFit, FindsTheCoefficientsThatTheMeasurementsWereMadeFrom) {
    std::vector<std::string> lines = good_lines();
    // Two runs of one kernel at one frequency whose mean, weighted by time, is the line replaced.
    const auto& kernel = kernels[2];
    lines.erase(lines.begin() + 2);
    lines.push_back(measurement_line(kernel, coefficients[0], 30, +1));
    lines.push_back(measurement_line(kernel, coefficients[0], 10, -3));
    write(lines);
    const auto run = run_easctl({"model", "fit", path("m.csv"), "-o", path("c.txt"), "--plot",
                                 path("fit.svg"), "--json", "--default-frequency", "2400000"});
    EXPECT_EQ(run.code, 0) << run.err;

    CoEffsFromFile file;
    ASSERT_EQ(file.ReadCoefficientsFromFile(path("c.txt").c_str()), 0);
    CoEfficients set;
    ASSERT_EQ(file.VecToCoEfficients(&set), static_cast<int>(std::size(coefficients)));
    EXPECT_EQ(set.getDefaultFrequency(), 2400000);
    const auto json = nlohmann::json::parse(run.out);
    for (std::size_t i = 0; i < std::size(coefficients); ++i) {
        SCOPED_TRACE(coefficients[i].khz);
        const std::vector<double>* const arrays[] = {
            &set.CoEfficientA_Array(), &set.CoEfficientB_Array(), &set.CoEfficientC_Array(),
            &set.CoEfficientD_Array(), &set.CoEfficientE_Array(), &set.CoEfficientF_Array()};
        EXPECT_EQ(set.frequencyArray()[i], coefficients[i].khz);
        const auto& row = json.at("rows").at(i);
        for (std::size_t c = 0; c < 6; ++c) {
            const double expected = coefficients[i].khz == 2400000 ? 0 : coefficients[i].factors[c];
            EXPECT_NEAR((*arrays[c])[i], expected, 1e-7 * std::max(1.0, std::abs(expected)));
            EXPECT_EQ((*arrays[c])[i], row.at(std::string(1, "ABCDEF"[c])).get<double>());
        }
        if (coefficients[i].khz == 2400000)
            continue;
        EXPECT_NEAR(row.at("power_w").at("r_squared").get<double>(), 1, 1e-9);
        EXPECT_LT(row.at("cycles_per_instruction").at("worst_error_percent").get<double>(), 1e-6);
    }
    std::stringstream picture;
    picture << std::ifstream(path("fit.svg")).rdbuf();
    EXPECT_THAT(picture.str(), HasSubstr("</svg>"));

    // A picture that cannot be drawn takes nothing else with it; a link and a mode stay.
    fs::rename(path("c.txt"), path("secret"));
    fs::permissions(path("secret"), fs::perms::owner_read | fs::perms::owner_write);
    fs::create_symlink("secret", path("c.txt"));
    const auto undrawn =
        run_easctl({"model", "fit", path("m.csv"), "-o", path("c.txt"), "--plot",
                    "/nowhere/fit.svg", "--json", "--default-frequency", "2400000"});
    EXPECT_EQ(undrawn.code, 1);
    EXPECT_EQ(undrawn.out, run.out);
    EXPECT_THAT(undrawn.err, HasSubstr("fit.svg was not drawn"));
    EXPECT_TRUE(fs::is_symlink(path("c.txt")));
    EXPECT_EQ(fs::status(path("secret")).permissions(),
              fs::perms::owner_read | fs::perms::owner_write);

    // Without a file to write to, standard output is the file.
    const auto piped =
        run_easctl({"model", "fit", path("m.csv"), "--default-frequency", "2400000"});
    std::stringstream written;
    written << std::ifstream(path("c.txt")).rdbuf();
    EXPECT_EQ(piped.out, written.str());
}

TEST_F(ModelFit, RefusesWhatIsNoCompleteMeasurementWithFileAndLine) {
    const struct {
        const char* what;
        std::size_t line;  // of those behind the header; that many are there: one is added
        std::string instead;
        const char* message;
    } rows[] = {
        {"not a number", 3, "1600000,fourier,,10,much,1e10,1e10,1e9", "m.csv:5: power_w: \"much\""},
        {"a count of 0", 0, "1600000,registers,,10,150,0,1e10,1e9", "m.csv:2: cycles: \"0\""},
        {"not finite", 0, "1600000,registers,,10,inf,1,1e10,1e9", "m.csv:2: power_w: \"inf\""},
        {"half a frequency", 1, "16e5.5,matrix,,10,150,1,1,1", "m.csv:3: frequency_khz"},
        {"a column less", 20, "2667000,stream,,10,150,1e10,1e10", "m.csv:22: 7 fields"},
        {"a missing run", 20, "# gone",
         "m.csv:16: kernel \"stream\" (line 8) was not measured at "
         "2667000 kHz"},
        {"an eighth kernel", 21, "1600000,sort,,10,150,1e10,1e10,1e9", "m.csv:23: 8 kernels"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::vector<std::string> lines = good_lines();
        lines.resize(std::max(lines.size(), row.line + 1));
        lines[row.line] = row.instead;
        write(lines);
        const auto run = run_easctl({"model", "fit", path("m.csv"), "-o", path("c.txt")});
        EXPECT_EQ(run.code, 3);
        EXPECT_THAT(run.err, HasSubstr(row.message));
        EXPECT_FALSE(fs::exists(path("c.txt")));
    }
    write(good_lines());
    const auto elsewhere =
        run_easctl({"model", "fit", path("m.csv"), "--default-frequency", "2000000"});
    EXPECT_EQ(elsewhere.code, 3);
    EXPECT_THAT(elsewhere.err, HasSubstr("2000000"));
    EXPECT_EQ(run_easctl({"model", "fit", path("none.csv")}).code, 3);
    EXPECT_EQ(run_easctl({"model", "fit", path("m.csv"), "--plot", path("fit.gif")}).code, 2);
}

// Exit code 1: what can be used is written, what would mislead the library is not.
TEST_F(ModelFit, ShowsABadCalibration) {
    const auto fit_of = [&](auto change) {
        std::vector<std::string> lines;
        for (const auto& row : coefficients) {
            for (auto kernel : kernels) {
                auto changed = row;
                change(kernel, changed);
                lines.push_back(measurement_line(kernel, changed));
            }
        }
        write(lines);
        fs::remove(path("c.txt"));
        return run_easctl({"model", "fit", path("m.csv"), "-o", path("c.txt")});
    };
    const auto noisy = fit_of([](auto& kernel, auto& row) {
        if (row.khz == 1600000 && kernel.name == std::string("stencil"))
            row.factors[2] += 60;
    });
    EXPECT_EQ(noisy.code, 1);
    EXPECT_THAT(noisy.err, HasSubstr("1600000 kHz: power: off by"));
    EXPECT_THAT(noisy.out, HasSubstr("doubtful"));
    EXPECT_TRUE(fs::exists(path("c.txt")));

    const auto singular = fit_of([](auto& kernel, auto&) { kernel.lines = kernel.watts / 1e4; });
    EXPECT_EQ(singular.code, 1);
    EXPECT_THAT(singular.err, HasSubstr("singular"));
    EXPECT_FALSE(fs::exists(path("c.txt")));

    const auto blank = fit_of([](auto&, auto& row) {
        if (row.khz == 1600000)
            row.factors = {1e-9, 1e-9, 0, 1e-9, 1e-9, 0};
    });
    EXPECT_EQ(blank.code, 1);
    EXPECT_THAT(blank.err, HasSubstr("pass for the default"));
    EXPECT_FALSE(fs::exists(path("c.txt")));
}

}  // namespace
