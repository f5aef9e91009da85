// The trace log of the database layer: one process-wide output stream whose flush becomes one
// record, "Mon DD HH:MM:SS (letter) [ids] user:resource<tab>text", written to a descriptor and, on
// request, to syslog. Off until dbtrace_config() is given a descriptor. The descriptor is not
// owned.
//
// Message sites of the library use eas::trace(); it is safe from any thread, also while another one
// turns tracing off. Severities are the syslog priorities: 3 for errors, 7 for all else.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <utility>

class DBTracer : public std::streambuf, public std::ostream {
  public:
    /// `fd` becomes the descriptor of the records if none is set yet or `resetfd` is true. With an
    /// `ident`, which must outlive the tracer, syslog is opened under that name.
    DBTracer(const char* ident, int fd, bool resetfd);
    ~DBTracer() override;
    DBTracer(const DBTracer&) = delete;
    DBTracer& operator=(const DBTracer&) = delete;

    /// Replaces the instance by one that writes to `fd`. Returns whether there is an instance.
    static bool init(int fd);
    /// The instance. Stops the process if there is none: ask dbtrace_config(-2) first.
    static DBTracer& get();
    /// Destroys the instance; what it still held is written first.
    static void close();

    /// Bit s of `mask` lets severity s through; the mask goes to syslog as well.
    static void setlogmask(int mask);
    /// Records of at most this severity also go to syslog; -1: none.
    static void syslog(int severity) { _syslog = severity; }
    static void logprefix(bool show) { _logprefix = show; }
    static void showpid(bool show) { _showpid = show; }
    static void showtid(bool show) { _showtid = show; }
    static void showwid(bool show) { _showwid = show; }

    /// Writes one whole record, or none if tracing is off. The instance cannot vanish meanwhile.
    static void write_record(int severity, const char* text);

  protected:
    int overflow(int c) override;
    int sync() override;

  private:
    int send_buf();
    void write_prefix();
    [[nodiscard]] std::string logprefix();
    [[nodiscard]] std::string shown_ids();

    static std::atomic<DBTracer*> _instance;
    static std::atomic<int> _fd;
    static std::atomic<int> _logmask;
    static std::atomic<int> _syslog;
    static std::atomic<bool> _logprefix;
    static std::atomic<bool> _showpid;
    static std::atomic<bool> _showtid;
    static std::atomic<bool> _showwid;

    const std::int32_t _bufsize;
    struct Free {
        void operator()(char* buffer) const noexcept { std::free(buffer); }
    };

    std::unique_ptr<char[], Free> _outbuf;
};

/// Begins a record: takes the record lock, unless this thread already has it.
struct logbegin {
    explicit logbegin(unsigned severity) noexcept : _severity(severity) {}
    unsigned _severity;
};
/// The user name in the prefix of the stream's later records; an empty name removes it.
struct setuser {
    explicit setuser(std::string name) : _name(std::move(name)) {}
    std::string _name;
};
/// The resource name in the prefix of the stream's later records; an empty name removes it.
struct setresource {
    explicit setresource(std::string name) : _name(std::move(name)) {}
    std::string _name;
};
/// The work-unit id in the prefix of the stream's later records; 0: none.
struct setworkunit {
    explicit setworkunit(int id) noexcept : _id(id) {}
    int _id;
};

std::ostream& operator<<(std::ostream& out, const logbegin& begin);
std::ostream& operator<<(std::ostream& out, const setuser& user);
std::ostream& operator<<(std::ostream& out, const setresource& resource);
std::ostream& operator<<(std::ostream& out, const setworkunit& work_unit);
/// Ends a record: end of line, flush, record lock released.
std::ostream& logend(std::ostream& out);

/// Turns tracing on (`fd` of 0 or more), off (-1), or only asks (-2). Returns 1 when it is on, else
/// 0.
int dbtrace_config(int fd);

/// A print function that gets the flag and two copies of the variable arguments.
using vprintf_t = void (*)(std::int64_t flag, std::va_list first, std::va_list second);
/// Registers `func`; null takes the earlier one back.
void dbtrace_register(vprintf_t func);
/// Hands its arguments to the registered print function, if there is one.
void dbtrace_printf(std::int64_t flag, ...);

namespace eas {

constexpr int severity_error = 3;
constexpr int severity_debug = 7;

/// One record of the trace log, cut to 1023 characters. While tracing is off nothing is formatted;
/// a text that cannot be formatted is not written. The thread is not cancelled inside.
void trace(int severity, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace eas
