// Texts on their way to the database: the locator line, conditions, and names in stored fields.
#include <string>

#include "interface/Locator.h"
#include "interface/TagRequest.h"
#include "interface/TagStore.h"
#include "tests/model/ModelFixtures.h"

namespace {

TEST(Locator, GivesTheNameOfTheRecognisedFormOnly) {
    const std::pair<const char*, const char*> rows[] = {
        {"mysql:dbname=mydsn\n", "mydsn"},
        {"MySQL:DBNAME=mydsn", "mydsn"},
        {"mysql:dbname=mydsn;host=x\n", "mydsn"},
        {"  mysql ; dbname : mydsn  \n", "mydsn"},
        {"mysql:dbname|mydsn\n", "mydsn"},
        {"mysql:dbname=mydsn|x\n", "mydsn"},
        {"mysql;dbname mydsn:x y\n", "mydsn"},
        {"mysql:dbn\\\name=mydsn\n", "mydsn"},  // a continued line
        {"mysql|dbname=mydsn\n", ""},           // the bar does not end the keyword
        {"mysql:dbname=\n", ""},
        {"mysql:user=mydsn\n", ""},
        {"pgsql:dbname=mydsn\n", ""},
        {":mysql:dbname=mydsn\n", ""},  // the line does not begin with the keyword
        {"mysql\n", ""},
        {":;:\n", ""},
        {"\nmysql:dbname=mydsn\n", ""},  // only the first line counts
        {"", ""},
    };
    for (const auto& [file, dsn] : rows)
        EXPECT_EQ(eas::parse_locator(eas_test::file_of(file).get()), dsn) << file;
}

TEST(Condition, JoinsWhatIsGivenVerbatim) {
    EXPECT_EQ(
        format_condition("c1", 2600000, "", "t1"),
        " where cluster_name=\"c1\" and default_frequency=2600000 and energy_tag_name=\"t1\"");
    EXPECT_EQ(format_condition("c", 1, "u", "t"),
              " where cluster_name=\"c\" and user_name=\"u\" and default_frequency=1 and "
              "energy_tag_name=\"t\"");
    EXPECT_EQ(format_condition("", 2147483647, "", ""), " where default_frequency=2147483647");
    EXPECT_EQ(format_condition("", 0, "u\"\\", ""), " where user_name=\"u\"\\\"");
    EXPECT_EQ(format_condition("", -1, "", ""), "");
}

TEST(StoredText, IsCutToItsFieldAndReadsOnlyTheDoublePercent) {
    const std::pair<std::string, const char*> rows[] = {
        {"plain", "plain"},
        {"100%%", "100%"},
        {"%%%%", "%%"},
        {"%%%", "%%"},
        {"%s%n%d", "%s%n%d"},
        {"50%", "50%"},
        {"1234567", "1234567"},
        {"12345678", "1234567"},
        {"123456%%8", "123456%"},
        {"%*1$.99999999s", "%*1$.99"},
        {"", ""},
    };
    for (const auto& [text, stored] : rows) {
        char field[9] = "........";
        eas::copy_as_format(field, 8, text);
        EXPECT_STREQ(field, stored) << text;
        EXPECT_EQ(field[8], '\0');
    }
    char none[1] = {'x'};
    eas::copy_as_format(none, "a");
    EXPECT_EQ(none[0], '\0');
}

}  // namespace
