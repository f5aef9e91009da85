// Loading the driver manager: complete, incomplete, absent, twice.
#include <dlfcn.h>

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

// The library that is loaded here lacks the eight that are not to be resolved.
TEST_F(DriverLoader, CompleteLibraryFillsWhatIsUsed) {
    ASSERT_TRUE(DBLibrary::init(EAS_FAULTY_ODBC));
    const DBLibrary* table = DBLibrary::get();
    EXPECT_TRUE(table->ready());
    const std::array first_last_and_between{
        reinterpret_cast<void*>(table->SQLAllocConnect), reinterpret_cast<void*>(table->SQLColumns),
        reinterpret_cast<void*>(table->SQLError), reinterpret_cast<void*>(table->SQLTransact)};
    EXPECT_THAT(first_last_and_between, testing::Each(testing::NotNull()));
    EXPECT_EQ(reinterpret_cast<void*>(table->SQLEndTran), ::dlsym(RTLD_DEFAULT, "SQLEndTran"));
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
