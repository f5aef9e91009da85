// easctl model fit: known coefficients come back from measurements that were made from them, and
// what cannot be fitted is named with file and line.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/ScratchFolder.h"
#include "tests/tools/Measurements.h"
#include "tests/tools/RunTool.h"

namespace eas::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class ModelFit : public ::testing::Test {
  protected:
    [[nodiscard]] std::string path(const char* name) const { return folder_.path(name); }

    void write(const std::vector<std::string>& lines) const {
        std::ofstream out(path("m.csv"));
        out << "frequency_khz,kernel,remark,elapsed_s,power_w,cycles,instructions,memory_bytes\n";
        for (const std::string& line : lines)
            out << line << '\n';
    }

    /// Every kernel at every frequency, from the table of known coefficients as `change` leaves it.
    template <typename Change>
    [[nodiscard]] static std::vector<std::string> lines_after(Change change) {
        std::vector<std::string> lines;
        for (const auto& row : coefficients) {
            for (auto kernel : kernels) {
                auto changed = row;
                change(kernel, changed);
                lines.push_back(measurement_line(kernel, changed));
            }
        }
        return lines;
    }
    [[nodiscard]] static std::vector<std::string> good_lines() {
        return lines_after([](auto&, auto&) {});
    }

    ScratchFolder folder_;
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
    EXPECT_TRUE(fs::exists(path("fit.svg")));

    const auto found = rows_of(path("c.txt"));
    ASSERT_EQ(found.size(), std::size(coefficients));
    const auto json = nlohmann::json::parse(run.out);
    for (std::size_t i = 0; i < found.size(); ++i) {
        SCOPED_TRACE(coefficients[i].khz);
        EXPECT_EQ(found[i].khz, coefficients[i].khz);
        const auto& row = json.at("rows").at(i);
        for (std::size_t c = 0; c < 6; ++c)
            EXPECT_EQ(found[i].factors[c], row.at("coefficients").at(c).get<double>());
        if (coefficients[i].khz == 2400000) {
            EXPECT_EQ(found[i].factors, (std::array<double, 6>{}));
            continue;
        }
        for (std::size_t c = 0; c < 6; ++c) {
            const double expected = coefficients[i].factors[c];
            EXPECT_NEAR(found[i].factors[c], expected, 1e-7 * std::max(1.0, std::abs(expected)));
        }
        EXPECT_NEAR(row.at("power_w").at("r_squared").get<double>(), 1, 1e-9);
        EXPECT_LT(row.at("cycles_per_instruction").at("worst_error_pct").get<double>(), 1e-6);
    }

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

    // What may be written but not replaced is written.
    std::ofstream(path("secret")) << std::string(99999, 'o');
    let_file_modes_bind();
    fs::permissions(folder_.path(), fs::perms::owner_read | fs::perms::owner_exec);
    std::vector<std::string> words{"model",   "fit", path("m.csv"), "--default-frequency",
                                   "2400000", "-o",  path("c.txt")};
    EXPECT_EQ(run_easctl(words).code, 0);
    fs::permissions(folder_.path(), fs::perms::owner_all);

    // Without a file to write to, standard output is the file.
    const std::string written = read_file(path("c.txt"));
    words.back() = "-";
    EXPECT_EQ(run_easctl(words).out, written);
    words.resize(5);
    EXPECT_EQ(run_easctl(words).out, written);

    // A disk without room leaves what is there, and no draft beside it.
    const auto files = [this] {
        return std::distance(fs::directory_iterator(folder_.path()), fs::directory_iterator());
    };
    const auto before = files();
    const rlimit little{100, RLIM_INFINITY};
    ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
    words.insert(words.end(), {"-o", path("c.txt")});
    EXPECT_EQ(run_easctl(words).code, 1);
    EXPECT_EQ(read_file(path("c.txt")), written);
    EXPECT_EQ(files(), before);
}

TEST_F(ModelFit, RefusesWhatIsNoCompleteMeasurementWithFileAndLine) {
    const struct {
        std::size_t line;  // of those behind the header; that many are there: one is added
        std::string instead;
        const char* message;
    } rows[] = {
        {3, "1600000,fourier,,10,much,1e10,1e10,1e9", "m.csv:5: power_w: \"much\""},
        {0, "1600000,registers,,10,150,0,1e10,1e9", "m.csv:2: cycles: \"0\""},
        {0, "1600000,registers,,10,inf,1,1e10,1e9", "m.csv:2: power_w: \"inf\""},
        {1, "16e5.5,matrix,,10,150,1,1,1", "m.csv:3: frequency_khz"},
        {0, "2300,registers,,10,150,1e10,1e10,1e9", "m.csv:2: frequency_khz: \"2300\""},
        {20, "2667000,stream,,10,150,1e10,1e10", "m.csv:22: 7 fields"},
        {20, "# gone", "m.csv:16: kernel \"stream\" (line 8) was not measured at 2667000 kHz"},
        {21, "1600000,sort,,10,150,1e10,1e10,1e9", "m.csv:23: 8 kernels"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.instead);
        std::vector<std::string> lines = good_lines();
        lines.resize(std::max(lines.size(), row.line + 1));
        lines[row.line] = row.instead;
        write(lines);
        expect_all({{{"model", "fit", path("m.csv"), "-o", path("c.txt")}, 3, row.message}});
        EXPECT_FALSE(fs::exists(path("c.txt")));
    }
    std::ofstream(path("mixed.csv"))
        << "kernel,frequency_khz,elapsed_s,power_w,cycles,instructions,memory_bytes,meter\n"
           "a,1600000,1,1,1,1,1,qpx/node imc/node\na,2400000,1,1,1,1,1,rapl/packages imc/node\n";
    expect_all({{{"model", "fit", path("mixed.csv")}, 3, "mixed.csv:3: meter: "}});
    write(good_lines());
    expect_all({{{"model", "fit", path("m.csv"), "--default-frequency", "2000000"}, 3, "2000000"},
                {{"model", "fit", path("none.csv")}, 3, "none.csv"},
                {{"model", "fit", path("m.csv"), "--plot", path("fit.gif")}, 2, "fit.gif"}});
    std::vector<std::string> lines = good_lines();
    lines.resize(std::size(kernels));
    write(lines);
    expect_all({{{"model", "fit", path("m.csv"), "--plot", path("fit.svg")},
                 1,
                 "fit.svg was not drawn: there is no value to draw"}});
}

// Exit code 1: what can be used is written, what would mislead the library is not.
TEST_F(ModelFit, ShowsABadCalibration) {
    const auto expect = [&](const char* message, bool written, auto change) {
        SCOPED_TRACE(message);
        write(lines_after(change));
        fs::remove(path("c.txt"));
        expect_all({{{"model", "fit", path("m.csv"), "-o", path("c.txt")}, 1, message}});
        EXPECT_EQ(fs::exists(path("c.txt")), written);
    };
    expect("1600000 kHz: power: off by", true, [](auto& kernel, auto& row) {
        if (row.khz == 1600000 && kernel.name == std::string("stencil"))
            row.factors[2] += 60;
    });
    // What least squares leave of 60 W at one kernel was calculated apart: the kernel's share in
    // its own fit is 0.413932, and 60 W x sqrt((1 - 0.413932) / 7) remain.
    write(lines_after([](auto& kernel, auto& row) {
        if (row.khz == 1600000 && kernel.name == std::string("stencil"))
            row.factors[2] += 60;
    }));
    const auto fit =
        document_of({"model", "fit", path("m.csv"), "--default-frequency", "2400000"}, 1);
    EXPECT_NEAR(fit.at("rows")[0].at("power_w").at("rms_residual").get<double>(), 17.361062, 1e-5);
    EXPECT_NEAR(fit.at("rows")[0].at("power_w").at("kernels")[4].at("residual").get<double>(),
                60 * (1 - 0.413931873), 1e-5);
    EXPECT_EQ("stencil", fit.at("rows")[0].at("power_w").at("worst_kernel"));
    expect("singular", false, [](auto& kernel, auto&) { kernel.lines = kernel.watts / 1e4; });
    expect("pass for the default", false, [](auto&, auto& row) {
        if (row.khz == 1600000)
            row.factors = {1e-9, 1e-9, 0, 1e-9, 1e-9, 0};
    });
}

}  // namespace
}  // namespace eas::test
