// The two table records without a database: statement texts and dumps.
#include <array>
#include <cstring>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "common/records/TQVN_EnergyCoEfficients.h"
#include "common/records/TQVN_EnergyPolicyTag.h"
#include "gmock/gmock.h"

namespace {

struct Texts {
    unsigned long columns;
    const char* select;
    const char* insert;
    const char* update;
};

void expect_texts(DBObj& record, const Texts& expected) {
    record.setBitMap(ColumnsBitMap(expected.columns));
    EXPECT_EQ(record.getSelectStatement(false), expected.select);
    EXPECT_EQ(record.getInsertStatement(), expected.insert);
    EXPECT_EQ(record.getUpdateStatement(false), expected.update);
    EXPECT_EQ(record.getSelectStatement(true), "");
    EXPECT_EQ(record.getUpdateStatement(true), "");
    EXPECT_EQ(record.getDeleteStatement(true), "");
}

TEST(TableRecord, TextsNameTheSelectedColumnsInTableOrder) {
    TQVN_EnergyPolicyTag tag;
    const std::vector<Texts> tag_texts{
        {0, "", "", "update TQVN_EnergyPolicyTag set "},
        {0b100001, "select energy_tag_name,job_id from TQVN_EnergyPolicyTag",
         "insert into TQVN_EnergyPolicyTag (energy_tag_name,job_id) values (?,?)",
         "update TQVN_EnergyPolicyTag set energy_tag_name=?,job_id=?"},
        {1U << 10, "select create_time from TQVN_EnergyPolicyTag",
         "insert into TQVN_EnergyPolicyTag (create_time) values (?)",
         "update TQVN_EnergyPolicyTag set create_time=?"}};
    for (const Texts& texts : tag_texts)
        expect_texts(tag, texts);
    EXPECT_EQ(tag.getDeleteStatement(false), "delete from TQVN_EnergyPolicyTag ");
    EXPECT_EQ(tag.getTableName(), "TQVN_EnergyPolicyTag");
    EXPECT_EQ(tag.typeinfo(), typeid(TQVN_EnergyPolicyTag));

    TQVN_EnergyCoEfficients coefficients;
    expect_texts(coefficients,
                 {0b1001, "select frequency,factor_a from TQVN_EnergyCoEfficients",
                  "insert into TQVN_EnergyCoEfficients (frequency,factor_a) values (?,?)",
                  "update TQVN_EnergyCoEfficients set frequency=?,factor_a=?"});
    EXPECT_EQ(coefficients.buildUpdateString(), "frequency=?,factor_a=?");
    int count = 0;
    EXPECT_EQ(coefficients.buildFieldString(&count, true), "frequency,factor_a");
    EXPECT_EQ(count, 2);
    EXPECT_EQ(coefficients.getDeleteStatement(false), "delete from TQVN_EnergyCoEfficients ");
    EXPECT_EQ(coefficients.typeinfo(), typeid(TQVN_EnergyCoEfficients));
}

TEST(TableRecord, AllColumnsAreDecidedByValue) {
    TQVN_EnergyPolicyTag tag;
    TQVN_EnergyCoEfficients coefficients;
    for (const unsigned long columns : {2047UL, 2048UL, ~0UL}) {
        tag.setBitMap(ColumnsBitMap(columns));
        EXPECT_EQ(tag.getSelectStatement(false), "select * from TQVN_EnergyPolicyTag");
    }
    for (const unsigned long columns : {511UL, 512UL}) {
        coefficients.setBitMap(ColumnsBitMap(columns));
        EXPECT_EQ(coefficients.getSelectStatement(false), "select * from TQVN_EnergyCoEfficients");
    }
    coefficients.setBitMap(ColumnsBitMap(510));
    EXPECT_EQ(coefficients.getSelectStatement(false),
              "select default_frequency,cluster_name,factor_a,factor_b,factor_c,factor_d,factor_e,"
              "factor_f from TQVN_EnergyCoEfficients");
    EXPECT_THROW(tag.setBitMap(ColumnsBitMap().set(64)), std::overflow_error);
}

TEST(TableRecord, DumpShowsWhatIsSelectedAndNotNull) {
    // In memory that is all ones, as a stack may be.
    alignas(TQVN_EnergyPolicyTag) std::array<char, sizeof(TQVN_EnergyPolicyTag)> memory;
    memory.fill('\xff');
    auto* const tag = new (memory.data()) TQVN_EnergyPolicyTag;
    EXPECT_EQ(tag->bind_col(nullptr, nullptr), -1) << "nothing is selected";
    EXPECT_EQ(tag->bind_param(nullptr, nullptr), -1);
    std::ostringstream out;
    tag->dump(out);
    EXPECT_EQ(out.str(), "");
    tag->setBitMap(ColumnsBitMap(0b10001010001));
    tag->clear();
    std::strcpy(tag->_energy_tag_name, "t 1");
    tag->_frequency = 2600000;
    tag->_predict_power = 250.123456789;
    tag->_create_time = 1099511627776;
    tag->dump(out);
    EXPECT_EQ(out.str(),
              "\n\n==> TQVN_EnergyPolicyTag record \n"
              "_energy_tag_name          = t 1\n"
              "_frequency                = 2600000\n"
              "_predict_power            = 250.123\n"
              "_create_time              = 1099511627776\n");
    tag->~TQVN_EnergyPolicyTag();

    std::ostringstream both;
    TQVN_EnergyCoEfficients coefficients;
    EXPECT_EQ(coefficients._frequency, 0);
    EXPECT_STREQ(coefficients._cluster_name, "");
    coefficients.dump(both);
    EXPECT_EQ(both.str(), "");
    coefficients.setBitMap(ColumnsBitMap(0b1001));
    coefficients.clear();
    coefficients.dump1(both);
    const std::string record =
        "\n\n==> TQVN_EnergyCoEfficients record \n"
        "_frequency                = 0\n"
        "_factor_a                 = 0\n";
    EXPECT_EQ(both.str(), record);
    both.str("");
    coefficients.dump(both);
    EXPECT_THAT(both.str(), ::testing::MatchesRegex(" &_columns = 0x[0-9a-f]+\n"
                                                    " &_ind= 0x[0-9a-f]+\n"
                                                    " &_frequency = 0x[0-9a-f]+\n"
                                                    "\n\n==> .*"));
    EXPECT_THAT(both.str(), ::testing::EndsWith(record));
}

}  // namespace
