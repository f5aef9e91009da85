// The trace log: the shape of a record, and that records survive threads that come, go and are
// ended.
#include <fcntl.h>
#include <pthread.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "tests/support/TraceCapture.h"

namespace {

std::vector<std::string> syslogged;

__attribute__((format(printf, 2, 0))) void record_syslog(int priority, const char* format,
                                                         std::va_list arguments) {
    std::array<char, 2048> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    syslogged.push_back(std::to_string(priority) + ":" + text.data());
}

}  // namespace

// In place of the system's, under the plain and the fortified name.
extern "C" __attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format,
                                                             ...) {
    std::va_list arguments;
    va_start(arguments, format);
    record_syslog(priority, format, arguments);
    va_end(arguments);
}
extern "C" __attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int,
                                                                   const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    record_syslog(priority, format, arguments);
    va_end(arguments);
}

namespace {

using eas::test::TraceCapture;
using testing::ElementsAre;
using testing::MatchesRegex;

std::string thread_id() {
    return std::to_string(::pthread_self());
}

TEST(TraceLog, RecordHasTimeLetterThreadTabTextAndAnEmptyLine) {
    const TraceCapture log(true);
    ::setenv("TZ", "ELSE-7:13", 1);
    ::tzset();
    const auto local = [] {  // without the seconds
        const std::time_t there = std::time(nullptr) + (7 * 60 + 13) * 60;
        std::array<char, 16> text{};
        std::strftime(text.data(), text.size(), "%b %d %H:%M:", std::gmtime(&there));
        return std::string(text.data());
    };
    const std::string before = local();
    eas::trace(7, "%s %d\n", "hello", 42);
    EXPECT_THAT(log.text(), MatchesRegex("(" + before + "|" + local() + ")[0-9]{2} \\(D\\) \\[" +
                                         thread_id() + "\\]\thello 42\n\n"));
}

TEST(TraceLog, PrefixShowsWhatIsAskedFor) {
    struct Row {
        bool pid, tid, wid;
        int work_unit;
        const char *user, *resource;
        std::string expected;
    };
    const std::string pid = std::to_string(::getpid());
    const std::string tid = thread_id();
    const std::vector<Row> rows{
        {false, false, false, 5, "", "", ""},
        {true, false, false, 5, "", "", " [" + pid + "]"},
        {true, true, false, 0, "", "", " [" + pid + ":" + tid + "]"},
        {true, true, true, 5, "", "", " [" + pid + ":" + tid + ":5]"},
        {false, false, true, 5, "", "", " [5]"},
        {false, false, true, 0, "", "", " []"},
        {true, false, true, 5, "", "", " [" + pid + ":5]"},
        {false, true, true, 7, "anna", "", " [" + tid + ":7] anna"},
        {false, false, false, 0, "anna", "db", " anna:db"},
        {false, false, false, 0, "anna", "db", " anna:db"},
        {false, false, false, 0, "", "db", " :db"},
    };
    const TraceCapture log(true);
    for (const Row& row : rows) {
        DBTracer::showpid(row.pid);
        DBTracer::showtid(row.tid);
        DBTracer::showwid(row.wid);
        const std::size_t before = log.text().size();
        DBTracer::get() << setworkunit(row.work_unit) << setuser(row.user)
                        << setresource(row.resource) << logbegin(3) << "text" << logend;
        const std::string record = log.text().substr(before);
        EXPECT_EQ(record.substr(record.find(')') + 1), row.expected + "\ttext\n");
    }
}

TEST(TraceLog, SeverityPicksLetterAndMaskBit) {
    const TraceCapture log(true);
    const std::string letters = "UACEWNID??";
    for (unsigned severity = 0; severity < letters.size(); ++severity) {
        DBTracer::setlogmask(1 << severity);
        const std::size_t before = log.text().size();
        DBTracer::get() << logbegin(severity) << "kept" << logend;
        DBTracer::get() << logbegin((severity + 1) % 32) << "masked" << logend;
        const std::string added = log.text().substr(before);
        EXPECT_EQ(added.at(added.find('(') + 1), letters[severity]);
        EXPECT_THAT(added, testing::HasSubstr("kept"));
        EXPECT_THAT(added, testing::Not(testing::HasSubstr("masked")));
    }
}

TEST(TraceLog, LongTextGoesOutInPiecesEachWithItsPrefix) {
    const TraceCapture log(true);
    DBTracer::get() << logbegin(7) << std::string(2500, 'x') << logend;
    std::vector<std::size_t> pieces;
    const std::string text = log.text();
    for (std::size_t tab = text.find('\t'); tab != std::string::npos;
         tab = text.find('\t', tab + 1))
        pieces.push_back(text.find_first_not_of('x', tab + 1) - tab - 1);
    EXPECT_THAT(pieces, ElementsAre(1024, 1024, 452));

    DBTracer::logprefix(false);
    eas::trace(7, "%s", std::string(2000, 'y').c_str());
    EXPECT_EQ(log.text().substr(text.size()), std::string(1023, 'y') + "\n");
}

TEST(TraceLog, RecordInsideARecordDoesNotBlock) {
    const TraceCapture log;
    DBTracer::get() << logbegin(7) << "outer ";
    eas::trace(3, "inner");
    DBTracer::get() << "rest" << logend;
    EXPECT_EQ(log.text(), "outer inner\nrest\n");
    std::thread([] { eas::trace(7, "other thread"); }).join();
    EXPECT_EQ(log.text(), "outer inner\nrest\nother thread\n");
}

TEST(TraceLog, SyslogGetsWhatIsSevereEnough) {
    const TraceCapture log;
    DBTracer::syslog(4);
    eas::trace(3, "an error, %s", "100 %s");
    eas::trace(4, "at the level");
    DBTracer::get() << "outside a record" << std::flush;
    eas::trace(5, "detail");
    DBTracer::syslog(-1);
    eas::trace(3, "not now");
    EXPECT_THAT(syslogged, ElementsAre("3:an error, 100 %s\n", "4:at the level\n"));
}

TEST(TraceLog, OffFormatsNothingAndHasNoStream) {
    EXPECT_EQ(dbtrace_config(-2), 0);
    eas::trace(7, "%s", reinterpret_cast<const char*>(1));  // would crash if it were read
    {
        const TraceCapture log;
        EXPECT_EQ(dbtrace_config(-2), 1);
    }
    EXPECT_EQ(dbtrace_config(-2), 0);
    EXPECT_DEATH(DBTracer::get(), "_instance");
}

TEST(TraceLog, ThreadsMayWriteWhileTracingIsTurnedOffAndOn) {
    const TraceCapture log;
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i)
        writers.emplace_back([] {
            for (int n = 0; n < 300; ++n)
                eas::trace(7, "%s", "0123456789");
        });
    const eas::UniqueFd other(::memfd_create("other", MFD_CLOEXEC));
    for (int n = 0; n < 100; ++n) {
        dbtrace_config(-1);
        dbtrace_config(other.get());
    }
    for (auto& writer : writers)
        writer.join();
    std::string text = log.text();
    for (std::size_t at = 0; at < text.size(); at += 11)
        ASSERT_EQ(text.substr(at, 11), "0123456789\n");
}

TEST(TraceLog, ThreadEndedInTheMiddleOfARecordLeavesTheLogUsable) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const eas::UniqueFd reader(ends[0]);
    const eas::UniqueFd writer(ends[1]);
    const std::size_t room = static_cast<std::size_t>(::fcntl(writer.get(), F_GETPIPE_SZ));
    ASSERT_EQ(::write(writer.get(), std::string(room, '.').data(), room),
              static_cast<ssize_t>(room));
    dbtrace_config(writer.get());
    // The write of the record blocks on the full pipe, or will; it must be finished all the same.
    std::thread blocked([] {
        eas::trace(7, "whole");
        pthread_testcancel();
    });
    pthread_cancel(blocked.native_handle());
    std::string text;
    std::array<char, 4096> piece{};
    while (text.find("whole\n") == std::string::npos) {
        const ssize_t got = ::read(reader.get(), piece.data(), piece.size());
        ASSERT_GT(got, 0);
        text.append(piece.data(), static_cast<std::size_t>(got));
    }
    blocked.join();
    eas::trace(7, "next");
    ASSERT_GT(::read(reader.get(), piece.data(), piece.size()), 0);
    dbtrace_config(-1);
}

TEST(TraceLog, PrintCallbackGetsTheArgumentsTwice) {
    static std::vector<long> seen;
    dbtrace_printf(1, 2, 3);
    dbtrace_register([](std::int64_t flag, std::va_list first, std::va_list second) {
        seen = {static_cast<long>(flag), va_arg(first, int), va_arg(first, int),
                va_arg(second, int)};
    });
    dbtrace_printf(7, 8, 9);
    dbtrace_register(nullptr);
    dbtrace_printf(1, 2, 3);
    EXPECT_THAT(seen, ElementsAre(7, 8, 9, 8));
}

}  // namespace
