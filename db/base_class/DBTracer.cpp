#include "db/base_class/DBTracer.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include "base/CancelState.h"
#include "base/DebugFile.h"
#include "base/FatalAssertion.h"
#include "base/Numbers.h"
#include "base/ThreadSafety.h"

namespace {

constexpr std::int32_t buffer_size = 1024;
constexpr long severity_between_records = 6;
constexpr std::string_view severity_letters = "UACEWNID?";

// The record lock is error-checking, which the lock declarations cannot describe: a thread that
// begins a record inside a record is refused without blocking and writes on.
pthread_once_t log_once = PTHREAD_ONCE_INIT;
pthread_mutex_t record_mutex;

void log_once_init() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&record_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

/// Who holds record_mutex; 0: nobody. An outer record whose lock an inner one released has nothing
/// left to give back.
std::atomic<pthread_t> record_owner{0};

void lock_records() {
    pthread_once(&log_once, log_once_init);
    if (pthread_mutex_lock(&record_mutex) == 0)
        record_owner = pthread_self();
}

void unlock_records() {
    if (record_owner != pthread_self())
        return;
    record_owner = 0;
    pthread_mutex_unlock(&record_mutex);
}

class RecordLock {
  public:
    RecordLock() { lock_records(); }
    ~RecordLock() { unlock_records(); }
    RecordLock(const RecordLock&) = delete;
    RecordLock& operator=(const RecordLock&) = delete;
};

eas::Mutex config_mutex;
vprintf_t print_callback EAS_GUARDED_BY(config_mutex) = nullptr;
// Written under config_mutex; read without it, so that a message inside a record cannot wait for a
// thread that reconfigures and itself waits for the record.
std::atomic<int> dbtrace_fd{-1};

/// The stream's extensible slots. Reserved on first use: loading the library runs no code.
struct Slots {
    int severity = std::ios_base::xalloc();
    int user = std::ios_base::xalloc();
    int resource = std::ios_base::xalloc();
    int work_unit = std::ios_base::xalloc();
};

const Slots& slots() {
    static const Slots reserved;
    return reserved;
}

const char* name_in(std::ios_base& stream, int slot) {
    return static_cast<const char*>(stream.pword(slot));
}

/// Keeps the owned name of a slot to its stream, whatever the kind of stream.
void follow_stream(std::ios_base::event event, std::ios_base& stream, int slot) {
    void*& name = stream.pword(slot);
    if (event == std::ios_base::erase_event) {
        std::free(name);
        name = nullptr;
    } else if (event == std::ios_base::copyfmt_event && name != nullptr) {
        name = ::strdup(static_cast<const char*>(name));
    }
}

void set_name(std::ios_base& stream, int slot, const std::string& name) {
    const char* held = name_in(stream, slot);
    if (name == std::string_view(held != nullptr ? held : ""))
        return;
    long& followed = stream.iword(slot);
    if (followed == 0) {
        stream.register_callback(follow_stream, slot);
        followed = 1;
    }
    std::free(std::exchange(stream.pword(slot), nullptr));
    if (!name.empty())
        stream.pword(slot) = ::strdup(name.c_str());
}

char severity_letter(long severity) {
    const auto unknown = severity_letters.size() - 1;
    const auto index = static_cast<unsigned long>(severity);
    return severity_letters[index < unknown ? index : unknown];
}

}  // namespace

std::atomic<DBTracer*> DBTracer::_instance{nullptr};
std::atomic<int> DBTracer::_fd{-1};
std::atomic<int> DBTracer::_logmask{255};
std::atomic<int> DBTracer::_syslog{-1};
std::atomic<bool> DBTracer::_logprefix{true};
std::atomic<bool> DBTracer::_showpid{false};
std::atomic<bool> DBTracer::_showtid{true};
std::atomic<bool> DBTracer::_showwid{false};

DBTracer::DBTracer(const char* ident, int fd, bool resetfd)
    : std::ostream(static_cast<std::streambuf*>(this)),
      _bufsize(buffer_size),
      _outbuf(static_cast<char*>(std::malloc(buffer_size))) {
    eas::require_or_abort(_outbuf != nullptr, "_outbuf");
    setp(_outbuf.get(), _outbuf.get() + _bufsize);
    if (_fd < 0 || resetfd)
        _fd = fd;
    if (ident != nullptr)
        ::openlog(ident, LOG_PID, LOG_DAEMON);
    ::setlogmask(_logmask);
}

DBTracer::~DBTracer() {
    const eas::DeferCancellation until_done;
    send_buf();
    ::closelog();
}

bool DBTracer::init(int fd) {
    const eas::DeferCancellation until_done;
    const RecordLock lock;
    std::unique_ptr<DBTracer>(_instance.exchange(nullptr)).reset();
    _instance = std::make_unique<DBTracer>("_DB", fd, true).release();
    return _instance != nullptr;
}

DBTracer& DBTracer::get() {
    DBTracer* tracer = _instance;
    eas::require_or_abort(tracer != nullptr, "_instance");
    return *tracer;
}

void DBTracer::close() {
    const RecordLock lock;
    std::unique_ptr<DBTracer>(_instance.exchange(nullptr)).reset();
}

void DBTracer::setlogmask(int mask) {
    _logmask = mask;
    ::setlogmask(mask);
}

void DBTracer::write_record(int severity, const char* text) {
    // Taken before the instance is looked at, so that nobody destroys it in between; logbegin's own
    // attempt is then refused and logend releases the lock.
    lock_records();
    DBTracer* tracer = _instance;
    if (tracer == nullptr) {
        unlock_records();
        return;
    }
    *tracer << logbegin(static_cast<unsigned>(severity)) << text << logend;
}

int DBTracer::overflow(int c) {
    send_buf();
    using Traits = std::char_traits<char>;
    if (c == Traits::eof())
        return Traits::not_eof(c);
    return sputc(Traits::to_char_type(c));
}

int DBTracer::sync() {
    return send_buf();
}

int DBTracer::send_buf() {
    const std::ptrdiff_t length = pptr() - pbase();
    if (length < 1)
        return 0;
    const long severity = iword(slots().severity);
    const auto bit = static_cast<unsigned long>(severity) % 32;
    if (((static_cast<unsigned>(_logmask.load()) >> bit) & 1U) != 0) {
        // The record lock is held: a thread that ended in here would silence all the others.
        const eas::DeferCancellation until_done;
        if (severity <= _syslog)
            ::syslog(static_cast<int>(severity), "%.*s", static_cast<int>(length), pbase());
        if (_logprefix)
            write_prefix();
        eas::write_debug_text(_fd, {pbase(), static_cast<std::size_t>(length)});
    }
    setp(_outbuf.get(), _outbuf.get() + _bufsize);
    return 0;
}

/// Without memory for it a record goes out bare: an exception would leave the stream unusable.
void DBTracer::write_prefix() {
    try {
        eas::write_debug_text(_fd, logprefix());
    } catch (const std::bad_alloc&) {
        return;
    }
}

std::string DBTracer::logprefix() {
    std::string prefix;
    std::array<char, 16> when{};
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (::localtime_r(&now, &local) != nullptr)
        prefix.assign(when.data(),
                      std::strftime(when.data(), when.size(), "%b %d %H:%M:%S", &local));
    prefix += " (";
    prefix += severity_letter(iword(slots().severity));
    prefix += ')';
    prefix += shown_ids();
    const char* user = name_in(*this, slots().user);
    const char* resource = name_in(*this, slots().resource);
    if (user != nullptr || resource != nullptr)
        prefix += ' ';
    if (user != nullptr)
        prefix += user;
    if (resource != nullptr)
        prefix.append(":").append(resource);
    return prefix += '\t';
}

std::string DBTracer::shown_ids() {
    const bool pid = _showpid;
    const bool tid = _showtid;
    const bool wid = _showwid;
    if (!pid && !tid && !wid)
        return {};
    std::string ids = " [";
    if (pid)
        ids += eas::decimal(::getpid());
    if (pid && tid)
        ids += ':';
    if (tid)
        ids += eas::decimal(::pthread_self());
    const long work_unit = iword(slots().work_unit);
    if (wid && work_unit != 0) {
        if (pid || tid)
            ids += ':';
        ids += eas::decimal(work_unit);
    }
    return ids += ']';
}

std::ostream& operator<<(std::ostream& out, const logbegin& begin) {
    lock_records();
    out.iword(slots().severity) = static_cast<long>(begin._severity);
    return out;
}

std::ostream& operator<<(std::ostream& out, const setuser& user) {
    set_name(out, slots().user, user._name);
    return out;
}

std::ostream& operator<<(std::ostream& out, const setresource& resource) {
    set_name(out, slots().resource, resource._name);
    return out;
}

std::ostream& operator<<(std::ostream& out, const setworkunit& work_unit) {
    out.iword(slots().work_unit) = work_unit._id;
    return out;
}

std::ostream& logend(std::ostream& out) {
    out << "\n" << std::flush;
    out.iword(slots().severity) = severity_between_records;
    unlock_records();
    return out;
}

int dbtrace_config(int fd) {
    if (fd < -1)
        return dbtrace_fd != -1 ? 1 : 0;
    const eas::MutexLock lock(config_mutex);
    dbtrace_fd = -1;  // until there is a tracer, or for good
    if (fd == -1)
        DBTracer::close();
    else
        DBTracer::init(fd);
    dbtrace_fd = fd;
    return fd != -1 ? 1 : 0;
}

void dbtrace_register(vprintf_t func) {
    const eas::MutexLock lock(config_mutex);
    print_callback = func;
}

void dbtrace_printf(std::int64_t flag, ...) {
    const eas::MutexLock lock(config_mutex);
    if (print_callback == nullptr)
        return;
    std::va_list first;
    std::va_list second;
    va_start(first, flag);
    va_copy(second, first);
    print_callback(flag, first, second);
    va_end(second);
    va_end(first);
}

namespace eas {

void trace(int severity, const char* format, ...) {
    if (dbtrace_config(-2) == 0)
        return;
    std::array<char, 1024> text;
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    if (length >= 0)
        DBTracer::write_record(severity, text.data());
}

}  // namespace eas
