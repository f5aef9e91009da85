// The two table records without a database: statement texts, what is bound where, and dumps.
#include <array>
#include <cstring>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "common/TQVN_EnergyCoEfficients.h"
#include "common/TQVN_EnergyPolicyTag.h"
#include "db/base_class/DBLibrary.h"
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

// ------------------------------------------------------------------ what reaches the driver
// manager

/// Binds as the driver manager gets them.
struct Recorder {
    std::ostringstream calls;
    const char* row = nullptr;

    std::string take() {
        std::string text = calls.str();
        calls.str("");
        return text;
    }
};
Recorder* recorder = nullptr;

SQLRETURN SQL_API bind_col(SQLHSTMT, SQLUSMALLINT position, SQLSMALLINT type, SQLPOINTER value,
                           SQLLEN size, SQLLEN* indicator) {
    EXPECT_NE(indicator, nullptr);
    EXPECT_EQ(*indicator, 0) << "never left as it was in memory";
    recorder->calls << position << ":" << type << ":" << size << "@"
                    << static_cast<char*>(value) - recorder->row << " ";
    return SQL_SUCCESS;
}

SQLRETURN SQL_API bind_parameter(SQLHSTMT, SQLUSMALLINT position, SQLSMALLINT direction,
                                 SQLSMALLINT type, SQLSMALLINT sql_type, SQLULEN column_size,
                                 SQLSMALLINT digits, SQLPOINTER value, SQLLEN size,
                                 SQLLEN* indicator) {
    EXPECT_EQ(direction, SQL_PARAM_INPUT);
    EXPECT_EQ(digits, 0);
    EXPECT_EQ(indicator, nullptr);
    recorder->calls << position << ":" << type << "/" << sql_type << ":" << column_size << ":"
                    << size << "@" << static_cast<char*>(value) - recorder->row << " ";
    return SQL_SUCCESS;
}

class Binding : public ::testing::Test {
  protected:
    Binding() {
        recorder = &recorder_;
        DBLibrary* odbc = DBLibrary::get();
        odbc->SQLBindCol = &bind_col;
        odbc->SQLBindParameter = &bind_parameter;
        // Memory that is all ones, as a stack may be.
        std::memset(memory_.data(), 0xff, memory_.size());
        tag_ = new (memory_.data()) TQVN_EnergyPolicyTag;
        recorder_.row = tag_->_energy_tag_name;
    }
    ~Binding() override {
        tag_->~TQVN_EnergyPolicyTag();
        DBLibrary::release();
    }

    Recorder recorder_;
    alignas(TQVN_EnergyPolicyTag) std::array<char, sizeof(TQVN_EnergyPolicyTag)> memory_;
    TQVN_EnergyPolicyTag* tag_;
};

TEST_F(Binding, PositionsCountTheSelectedColumns) {
    const auto offset = [this](const void* field) {
        return "@" + std::to_string(static_cast<const char*>(field) - recorder_.row) + " ";
    };
    EXPECT_EQ(tag_->bind_col(nullptr, nullptr), -1) << "nothing is selected";
    EXPECT_EQ(tag_->bind_param(nullptr, nullptr), -1);
    EXPECT_EQ(recorder_.take(), "");

    tag_->setBitMap(ColumnsBitMap(0b10001101001));  // name, cluster, job, power left out, ...
    EXPECT_EQ(tag_->bind_col(nullptr, nullptr), 0);
    EXPECT_EQ(recorder_.take(), "1:1:257@0 2:1:41" + offset(tag_->_cluster_name) + "3:1:1025" +
                                    offset(tag_->_job_id) + "4:8:8" +
                                    offset(&tag_->_predict_power) + "5:-25:8" +
                                    offset(&tag_->_create_time));

    tag_->setBitMap(ColumnsBitMap(0b10101000001));
    tag_->clear();
    std::strcpy(tag_->_energy_tag_name, "four");
    EXPECT_EQ(tag_->bind_param(nullptr, nullptr), 0);
    EXPECT_EQ(recorder_.take(), "1:1/1:256:4@0 2:8/8:0:0" + offset(&tag_->_predict_power) +
                                    "3:4/4:0:0" + offset(&tag_->_predict_elapse_time) +
                                    "4:-25/-5:0:0" + offset(&tag_->_create_time));
}

TEST_F(Binding, DumpShowsWhatIsSelectedAndNotNull) {
    std::ostringstream out;
    tag_->dump(out);
    EXPECT_EQ(out.str(), "");
    tag_->setBitMap(ColumnsBitMap(0b10001010001));
    tag_->clear();
    std::strcpy(tag_->_energy_tag_name, "t 1");
    tag_->_frequency = 2600000;
    tag_->_predict_power = 250.123456789;
    tag_->_create_time = 1099511627776;
    tag_->dump(out);
    EXPECT_EQ(out.str(),
              "\n\n==> TQVN_EnergyPolicyTag record \n"
              "_energy_tag_name          = t 1\n"
              "_frequency                = 2600000\n"
              "_predict_power            = 250.123\n"
              "_create_time              = 1099511627776\n");

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
