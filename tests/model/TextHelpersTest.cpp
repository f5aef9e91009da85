// The helpers that the file readers rest on.
#include "common/model/TextHelpers.h"

#include <utility>

#include "tests/model/ModelFixtures.h"

namespace {

TEST(TextHelpers, TellNumbersFromOtherTexts) {
    struct {
        const char* text;
        int is_float, is_int;
    } const cases[] = {
        {nullptr, 0, 0}, {"", 0, 0},     {" ", 0, 0},   {"5", 1, 1},   {"  -57", 1, 1},
        {"+", 1, 1},     {"-", 1, 1},    {"5.", 1, 0},  {"-.5", 1, 0}, {"12.75", 1, 0},
        {".5", 0, 0},    {"\t5", 0, 0},  {"5 ", 0, 0},  {"1e5", 0, 0}, {"1.2.3", 0, 0},
        {"--5", 0, 0},   {"0x10", 0, 0}, {"5,5", 0, 0}, {"nan", 0, 0}, {"\xb2", 0, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(isfloat(c.text), c.is_float) << (c.text ? c.text : "null");
        EXPECT_EQ(isint(c.text), c.is_int) << (c.text ? c.text : "null");
    }
}

TEST(TextHelpers, MatchSectionKeywords) {
    struct {
        const char *input, *stand;
        int result;
    } const cases[] = {
        {"", "End", -1},
        {"End", "", -1},
        {"  \t ", "End", -1},
        {"x", "x", -1},
        {"En", "End", -1},
        {"  eNd\t", "End", 0},
        {"End of it", "End", 0},
        {"begin \t  min_energy", "Begin Min_Energy", 0},
        {"BeginMin_Energy", "Begin Min_Energy", -2},
        {"Begin", "Begin Min_Energy", -1},
        {"Begin Max", "Begin Min_Energy", -3},
        {"a b", "a  b", -2},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(compareSection(c.input, c.stand), c.result) << c.input << " / " << c.stand;
    }
}

TEST(TextHelpers, CompareWithoutRegardToCase) {
    EXPECT_EQ(stricmp("MySQL", "mysql"), 0);
    EXPECT_EQ(stricmp(nullptr, ""), 0);
    EXPECT_EQ(stricmp("aB", "Ac"), -1);
    EXPECT_EQ(stricmp("mysqlx", "mysql"), 'x');
    EXPECT_EQ(stricmp(nullptr, "A"), -'a');
    EXPECT_EQ(stricmp("[", "{"), '[' - '{');
}

TEST(TextHelpers, TrimInPlace) {
    EXPECT_EQ(ltrunc(nullptr), nullptr);
    for (const auto& [text, expected] :
         {std::pair("\t a b \r\n", "a b"), {" \v\f ", ""}, {"", ""}, {"x", "x"}}) {
        std::string copy = text;
        EXPECT_STREQ(ltrunc(copy.data()), expected);
        EXPECT_EQ(blankline(text), *expected == '\0' ? 1 : 0);
    }
}

std::vector<std::string> lines_of(std::string_view content) {
    const eas::UniqueFile file = eas_test::file_of(content);
    std::vector<std::string> lines;
    while (const char* line = my_getline(file.get()))
        lines.emplace_back(line);
    return lines;
}

TEST(LineReader, TrimsAndJoinsContinuedLines) {
    using Lines = std::vector<std::string>;
    EXPECT_EQ(my_getline(nullptr), nullptr);
    EXPECT_EQ(lines_of(""), Lines{});
    EXPECT_EQ(lines_of("  one \n\n\ttwo"), (Lines{"one", "", "two"}));
    EXPECT_EQ(lines_of("ab\\ \n  cd\\\nef\nnext\n"), (Lines{"abcdef", "next"}));
    EXPECT_EQ(lines_of("\\\n\\\nx\n"), (Lines{"x"}));
    // The file ends where a line should go on: only the last piece is handed out.
    EXPECT_EQ(lines_of("ab\\\n"), (Lines{"ab\\"}));
    EXPECT_EQ(lines_of("ab\\\ncd\\\n"), (Lines{"cd\\"}));
    EXPECT_EQ(lines_of(std::string_view("a\0b\nc\n", 6)), (Lines{"a", "c"}));
}

TEST(LineReader, StaysInsideItsBuffer) {
    constexpr std::size_t room = 57343;
    using Lines = std::vector<std::string>;
    // Not EXPECT_EQ: a failure would print the lines.
    const std::string full(room, 'x');
    EXPECT_TRUE(lines_of(full + "yz\n") == (Lines{full, "yz"}));
    // Two characters fit behind the last piece: the line's end is left for the next call.
    const std::string nearly(room - 2, 'x');
    EXPECT_TRUE(lines_of(nearly + "\\\nyz\n") == (Lines{nearly + "yz", ""}));
    // A line that fills the buffer and still goes on is given up.
    EXPECT_TRUE(lines_of(std::string(room - 1, 'x') + "\\\nyz\n").empty());
    std::string endless;
    for (int i = 0; i < 100000; ++i)
        endless += "ab\\\n";
    EXPECT_TRUE(lines_of(endless).empty());
}

}  // namespace
