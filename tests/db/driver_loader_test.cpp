// Loading the driver manager: complete, incomplete, absent, twice.
#include <dlfcn.h>

#include <array>
#include <cstring>
#include <sstream>

#include "db/base_class/DBLibrary.h"
#include "gmock/gmock.h"
#include "tests/support/TraceCapture.h"

namespace {

bool is_loaded(const char* path) {
    void* library = ::dlopen(path, RTLD_LAZY | RTLD_NOLOAD);
    if (library != nullptr)
        ::dlclose(library);
    return library != nullptr;
}

class DriverLoader : public testing::Test {
  protected:
    ~DriverLoader() override { DBLibrary::release(); }
    eas::test::TraceCapture log_;
};

/// The table's pointers in their order; those that start with a "-" are never resolved.
constexpr const char* entry_points =
    "AllocConnect AllocEnv AllocHandle AllocStmt BindCol -BindParam BindParameter Cancel "
    "CloseCursor ColAttribute Columns Connect -CopyDesc -DataSources DescribeCol Disconnect "
    "EndTran Error ExecDirect Execute Fetch FetchScroll FreeConnect FreeEnv FreeHandle FreeStmt "
    "GetConnectAttr GetConnectOption GetCursorName GetData -GetDescField -GetDescRec GetDiagField "
    "GetDiagRec GetEnvAttr GetFunctions GetInfo GetStmtAttr GetStmtOption GetTypeInfo "
    "NumResultCols ParamData Prepare PutData RowCount SetConnectAttr SetConnectOption "
    "SetCursorName -SetDescField -SetDescRec SetEnvAttr -SetParam SetStmtAttr SetStmtOption "
    "SpecialColumns Statistics Tables Transact";

TEST_F(DriverLoader, CompleteLibraryFillsWhatIsUsedEachWithItsOwn) {
    ASSERT_TRUE(DBLibrary::init(EAS_FAULTY_ODBC));
    const DBLibrary* table = DBLibrary::get();
    EXPECT_TRUE(table->ready());
    std::array<void*, sizeof(OdbcEntryPoints) / sizeof(void*)> pointers{};
    std::memcpy(pointers.data(), static_cast<const OdbcEntryPoints*>(table), sizeof pointers);
    std::istringstream names(entry_points);
    std::string name;
    for (void* const pointer : pointers) {
        names >> name;
        const std::string symbol = "SQL" + name;
        EXPECT_EQ(pointer, name[0] == '-' ? nullptr : ::dlsym(RTLD_DEFAULT, symbol.c_str()))
            << name;
        EXPECT_EQ(pointer == nullptr, name[0] == '-') << name;
    }
    EXPECT_FALSE(names >> name) << name << " has no pointer";
    EXPECT_EQ(log_.text(), "");
}

TEST_F(DriverLoader, MissingEntryPointStopsThereWithOneMessage) {
    EXPECT_FALSE(DBLibrary::init(EAS_FAULTY_ODBC_INCOMPLETE));
    const DBLibrary* table = DBLibrary::get();
    EXPECT_NE(table->SQLColAttribute, nullptr);
    EXPECT_EQ(table->SQLColumns, nullptr);
    EXPECT_EQ(table->SQLConnect, nullptr);
    EXPECT_FALSE(table->ready());
    EXPECT_FALSE(is_loaded(EAS_FAULTY_ODBC_INCOMPLETE));
    EXPECT_THAT(log_.text(),
                testing::MatchesRegex(
                    "Failed to load the function: SQLColumns.  Error: [^\n]*SQLColumns\n\n"));
}

TEST_F(DriverLoader, MissingLibraryFailsWithoutAMessage) {
    EXPECT_FALSE(DBLibrary::get()->ready());
    EXPECT_FALSE(DBLibrary::init("libno-such-driver-manager.so"));
    EXPECT_EQ(log_.text(), "");
    EXPECT_FALSE(DBLibrary::get()->ready());
    EXPECT_EQ(DBLibrary::get()->SQLAllocConnect, nullptr);
    EXPECT_TRUE(DBLibrary::get()->loadLibrary(EAS_FAULTY_ODBC));
    EXPECT_TRUE(DBLibrary::get()->loadLibrary("libno-such-driver-manager.so")) << "already loaded";
}

TEST_F(DriverLoader, EarlierTableStaysUsableUntilAllIsReleased) {
    ASSERT_TRUE(DBLibrary::init(EAS_FAULTY_ODBC));
    const DBLibrary* earlier = DBLibrary::get();
    ASSERT_TRUE(DBLibrary::init(EAS_FAULTY_ODBC));
    EXPECT_NE(earlier, DBLibrary::get());
    EXPECT_TRUE(earlier->ready());
    EXPECT_TRUE(is_loaded(EAS_FAULTY_ODBC));
    DBLibrary::release();
    EXPECT_FALSE(is_loaded(EAS_FAULTY_ODBC));
}

}  // namespace
