// What programs read: the fields of every command's JSON document are those that the manual page
// lists, and the page lists no others.
#include <gmock/gmock.h>
#include <stdlib.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/node/NodeTest.h"
#include "tests/support/ScratchDatabase.h"
#include "tests/tools/Measurements.h"
#include "tests/tools/RunTool.h"

namespace eas::test {
namespace {

/// A line of a table: a field by its path, "rows[].power_w", and the table of what is below it.
struct Row {
    std::string path, below;
    bool optional;
};

/// The section JSON of the manual page's source: tables by the commands or records they describe.
class Manual {
  public:
    Manual() {
        std::istringstream page(source_file("docs/man/easctl.1.in"));
        std::string line;
        while (std::getline(page, line) && line != ".Sh JSON") {
        }
        std::vector<std::string> described;
        while (std::getline(page, line) && line.rfind(".Sh", 0) != 0) {
            if (line.rfind(".It Ic ", 0) == 0 || line.rfind(".It Em ", 0) == 0)
                described = split(line.substr(7), " , ");
            else if (line.rfind(".It Va ", 0) == 0)
                for (const std::string& table : described)
                    add(tables_[table], line.substr(7));
        }
    }

    void check(const nlohmann::json& document, const std::string& table) {
        SCOPED_TRACE(table + ": " + document.dump(2));
        ASSERT_EQ(tables_.count(table), 1U);
        std::map<std::string, Field> fields;
        expand(table, "", fields);
        compare(document, "", fields);
    }

    /// What was described and never seen.
    [[nodiscard]] std::vector<std::string> unseen() const {
        std::vector<std::string> left;
        for (const auto& [table, rows] : tables_) {
            for (const Row& row : rows)
                if (seen_.count(table + ": " + row.path) == 0)
                    left.push_back(table + ": " + row.path);
        }
        return left;
    }

  private:
    struct Field {
        std::string origin;
        bool optional;
    };

    static std::vector<std::string> split(std::string text, const std::string& separator) {
        std::vector<std::string> parts;
        for (std::size_t end = 0; (end = text.find(separator)) != std::string::npos;) {
            parts.push_back(text.substr(0, end));
            text.erase(0, end + separator.size());
        }
        parts.push_back(text);
        return parts;
    }

    static void add(std::vector<Row>& rows, const std::string& line) {
        const std::vector<std::string> columns = split(line, " Ta ");
        ASSERT_EQ(columns.size(), 2U) << line;
        for (std::string path : split(columns[0], " , ")) {
            const bool optional = path.size() > 2 && path.substr(path.size() - 2) == " ?";
            rows.push_back({path.substr(0, path.size() - (optional ? 2 : 0)), {}, optional});
        }
        const std::size_t record = ("; " + columns[1]).rfind(" Em ");
        if (record != std::string::npos)
            rows.back().below = columns[1].substr(record + 2);
    }

    void expand(const std::string& table, const std::string& prefix,
                std::map<std::string, Field>& fields) {
        ASSERT_EQ(tables_.count(table), 1U) << table;
        for (const Row& row : tables_[table]) {
            for (std::size_t dot = 0; (dot = row.path.find('.', dot + 1)) != std::string::npos;)
                fields.insert({prefix + row.path.substr(0, dot), {"", false}});
            fields.insert_or_assign(prefix + row.path,
                                    Field{table + ": " + row.path, row.optional});
            if (!row.below.empty())
                expand(row.below, prefix + row.path + '.', fields);
        }
    }

    void compare(const nlohmann::json& object, const std::string& where,
                 const std::map<std::string, Field>& fields) {
        std::set<std::string> present;
        for (const auto& [key, value] : object.items()) {
            const bool policy = key.rfind("minimize_", 0) == 0;
            const std::string path =
                where + (policy ? "POLICY" : key) + (value.is_array() ? "[]" : "");
            present.insert(path);
            const auto field = fields.find(path);
            ASSERT_NE(field, fields.end()) << path << " is not in the manual page";
            seen_.insert(field->second.origin);
            for (const nlohmann::json& one :
                 value.is_array() ? value : nlohmann::json::array({value})) {
                if (one.is_object())
                    compare(one, path + '.', fields);
            }
        }
        for (const auto& [path, field] : fields) {
            const bool is_here = path.substr(0, path.rfind('.') + 1) == where;
            EXPECT_TRUE(!is_here || field.optional || present.count(path) > 0)
                << "there is no " << path;
        }
    }

    std::map<std::string, std::vector<Row>> tables_;
    std::set<std::string> seen_;
};

/// Every command of easctl, "db init", after the manual page that it writes.
std::set<std::string> all_commands() {
    std::set<std::string> commands;
    std::istringstream page(run_easctl({"completion", "mdoc"}).out);
    const std::string title = ".Ss \"\\&easctl ";
    for (std::string line; std::getline(page, line);) {
        if (line.rfind(title, 0) == 0)
            commands.insert(line.substr(title.size(), line.find('"', title.size()) - title.size()));
    }
    return commands;
}

class JsonDocuments : public NodeTest {
  protected:
    /// Runs a command, named by its first `words`, and compares what it prints.
    void run(std::vector<std::string> arguments, std::size_t words = 2) {
        std::string command = arguments[0] + (words > 1 ? ' ' + arguments[1] : "");
        arguments.insert(arguments.begin(), "--json");
        const ToolRun run = run_easctl(arguments);
        commands_.insert(command);
        const nlohmann::json document = nlohmann::json::parse(run.out, nullptr, false);
        ASSERT_TRUE(document.is_object()) << command << ": " << run.out << run.err;
        manual_.check(document, document.contains("error") ? "failure" : command);
    }

    void run_model_and_tag_commands() {
        const ScratchFile model(source_file("examples/cluster/coefficients.txt"));
        const ScratchFile jobs(source_file("examples/cluster/jobs.csv") + "too,short\n");
        const ScratchFile runs("user,tag,frequency_khz,elapsed_s,power_w\nanna,no,2000000,9,9\n");
        const ScratchFile doubtful("1200000:100,0,0,1,0,0\n2300000:0,0,0,0,0,0\n");
        run({"db", "check"});
        run({"db", "init"});
        run({"model", "import", model.path(), "--cluster", "sample"});
        run({"model", "import", doubtful.path(), "--cluster", "other"});
        for (const char* command : {"list", "show", "export", "remove"}) {
            const bool of_one = command != std::string("list");
            run(of_one ? std::vector<std::string>{"model", command, "--cluster", "other"}
                       : std::vector<std::string>{"model", command});
        }
        run({"model", "remove", "--cluster", "other", "--yes"});
        run({"tag", "generate", "--jobs", jobs.path()});
        run({"tag", "generate", "--jobs", jobs.path()});  // the names are taken
        run({"tag", "list"});
        const std::vector<std::string> one{"--user", "anna", "--tag", "hpl"};
        const auto about = [&](std::vector<std::string> words, std::vector<std::string> more) {
            words.insert(words.end(), one.begin(), one.end());
            words.insert(words.end(), more.begin(), more.end());
            run(words);
        };
        about({"tag", "show"}, {});
        about({"tag", "select"}, {"--policy", "minimize_energy", "--explain"});
        about({"tag", "verify"},
              {"--frequency", "2000000", "--elapsed", "2065", "--power", "258", "--cycles",
               "6.6e13", "--instructions", "1.5e14", "--memory-bytes", "1e13"});
        run({"tag", "verify", "--jobs", runs.path()});
        run({"simulate", jobs.path(), "--sweep", "0:2:1", "--class-column", "user"}, 1);
        const ScratchFile history(
            "user,tag,job_id,class,cluster,start,end,outcome,reason,policy,type,meter,"
            "frequency_khz,default_frequency_khz,nodes,count,elapsed_s,energy_j,spread,cycles,"
            "instructions,memory_bytes,predicted_s,predicted_j,default_s,default_j\n"
            "anna,hpl,1,a,c,1,9,used,r,minimize_energy,t,m,2000000,2300000,2,1,8,9,0.1,1,1,1,9,9,"
            "9,9\n");
        run({"history", history.path()}, 1);
        run({"report", history.path(), "--price", "1", "--co2", "1"}, 1);
        run({"drift", history.path(), "--all"}, 1);
        run({"metrics", history.path()}, 1);
        run({"tag", "list", "--runs", history.path()});
        const ScratchFile tags(run_easctl({"tag", "export"}).out);
        run({"tag", "export"});
        const ScratchFile changed(tags.text() + "anna,zz,1,1,1200000,1,0,1,0\n");
        run({"tag", "import", changed.path()});
        run({"tag", "regenerate", "--jobs", jobs.path()});
        run({"tag", "import", changed.path()});
        run({"tag", "remove", "--all", "--yes"});
    }

    void run_file_and_node_commands() {
        // One row of the fit would pass for the default one, and cannot be used.
        std::string lines =
            "frequency_khz,kernel,remark,elapsed_s,power_w,cycles,instructions,memory_bytes\n";
        for (KnownRow row : coefficients) {
            if (row.khz == 1600000)
                row.factors = {1e-9, 1e-9, 0, 1e-9, 1e-9, 0};
            for (const KnownKernel& kernel : kernels)
                lines += measurement_line(kernel, row) + '\n';
        }
        const ScratchFile measurements(lines), output("");
        run({"model", "fit", measurements.path(), "--default-frequency", "2400000"});
        const ScratchFile thresholds(source_file("examples/cluster/thresholds.conf") + "what?\n");
        run({"thresholds", "check", thresholds.path()});
        run({"model", "calibrate", "--seconds", "0.1", "--kernels", "stream", "--frequencies",
             "1600000", "--out", output.path()});
        run({"doctor", "--node", "--dsn", "nodsn"}, 1);
        for (const char* command : {"info", "sensors", "frequency"})
            run({"node", command});
        run({"node", "sample", "--", "true"});
        run({"node", "gather", ScratchFile("").path()});
        for (const char* command : {"begin", "end"})
            run({"job", command});
        const Hidden meter("/sys/devices/platform");
        run({"node", "sensors"});
    }

    Manual manual_;
    std::set<std::string> commands_;
};

TEST_F(JsonDocuments, HaveTheFieldsThatTheManualPageLists) {
    const ScratchDatabase database(Engine::sqlite);
    const ScratchFile thresholds(source_file("examples/cluster/thresholds.conf"));
    ::setenv("EASCTL_THRESHOLDS", thresholds.path().c_str(), 1);
    NodeShape shape = of_model(44, 1);  // whose memory counters run with the workload
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    FakeNode node(shape);
    inside(node, [&] {
        run_model_and_tag_commands();
        run_file_and_node_commands();
        EXPECT_EQ(commands_, all_commands());
        // Those of a server.
        EXPECT_THAT(manual_.unseen(),
                    ::testing::ElementsAre("db check: server", "db init: server"));
    });
}

}  // namespace
}  // namespace eas::test
