// Named loggers, their level words and the process-wide log manager.
//
// A logger carries one 32-bit level word: bits 0-15 are the mask of levels
// written to the log's writers, bits 16-31 the mask of levels kept in the
// in-memory log. A level is one bit; its mask is the level together with every
// less verbose one (mask("info") = 31). Records are emitted through
// TESSERA_LOG, which tests the word inline and evaluates nothing else when the
// level is off:
//
//     Tessera::Ref<Tessera::Service::Logger> log;
//     Tessera::Service::GetDefaultLogger(log);
//     TESSERA_LOG(log, Logger::LOG_INFO, "Listening on port %1", port);
//
// Each record becomes one line, "<prefix><message>\n", formatted once and
// handed whole, in one Write, to every writer registered with the log manager
// whose mask allows the record's level. The prefix reads
//     2024-03-01T09:15:02.117+01:00 [01234 info 'http' worker]
// local date, time with milliseconds and zone, the writing thread's id (at
// least five digits), the level name, the logger's name in quotes, and the
// writing thread's states (tessera/system/runtime.h) when it has any.
//
// Until the first writer is registered, records at "error" and above go to
// standard error, so that no failure reported early is lost.
#pragma once

#include <tessera/api.h>
#include <tessera/formatter.h>
#include <tessera/object.h>
#include <tessera/system/dateTime.h>
#include <tessera/writer.h>

#include <atomic>
#include <string>
#include <vector>

namespace Tessera {
namespace Service {

class TESSERA_EXPORT Logger : public ObjectImpl {
public:
    // One bit per level.
    enum LogLevel {
        LOG_NONE = 0,
        LOG_QUIET = 1,
        LOG_PANIC = 2,
        LOG_ERROR = 4,
        LOG_WARNING = 8,
        LOG_INFO = 16,
        LOG_VERBOSE = 32,
        LOG_TRIVIA = 64
    };
    // A level with every less verbose level.
    enum LogLevelMask : unsigned {
        MASK_NONE = 0,
        MASK_QUIET = 1,
        MASK_PANIC = 3,
        MASK_ERROR = 7,
        MASK_WARNING = 15,
        MASK_INFO = 31,
        MASK_VERBOSE = 63,
        MASK_TRIVIA = 127
    };

    // A logger named `name` with the raw level word `rawLevel`.
    Logger(const std::string& name, unsigned rawLevel);
    ~Logger() override;

    // ---- arithmetic on raw level words ----

    // Non-zero when `level` is enabled in either half of `word`.
    static unsigned MaskLogLevel(LogLevel level, unsigned word) noexcept {
        return (static_cast<unsigned>(level) + (static_cast<unsigned>(level) << 16)) & word;
    }
    static unsigned GetLogLevelMask(unsigned word) noexcept { return word & 0xFFFFu; }
    static unsigned GetLogLevel(unsigned word) noexcept { return word & 0xFFFFu; }
    static unsigned GetMemLevelMask(unsigned word) noexcept { return word >> 16; }
    static unsigned GetMemLevel(unsigned word) noexcept { return word >> 16; }
    // The highest level of a contiguous mask: mask - (mask >> 1).
    static LogLevel GetLevelFromMask(unsigned mask) noexcept {
        const int m = static_cast<int>(mask);
        return static_cast<LogLevel>(m - (m >> 1));
    }
    // The level with every less verbose level; 0 for "none".
    static LogLevelMask GetMaskFromLevel(LogLevel level) noexcept {
        const unsigned l = static_cast<unsigned>(level);
        return static_cast<LogLevelMask>(l == 0 ? 0u : (l | (l - 1)));
    }
    // a + (b << 16): two masks (or two levels) into one word, unconverted.
    static unsigned MakeCombinedLevel(unsigned logHalf, unsigned memHalf) noexcept {
        return logHalf + (memHalf << 16);
    }

    // The level's name ("none" ... "trivia"), as printed and configured.
    // Takes a level or a combined word, as the record prefix does.
    static const char* GetLevelName(unsigned levelWord) noexcept;
    // The level named `name`; false for a name that is none of them.
    static bool ParseLevel(const std::string& name, LogLevel& level) noexcept;

    // ---- the logger's own word ----

    void SetLevel(LogLevelMask mask) noexcept { SetLow(static_cast<unsigned>(mask)); }
    void SetLevel(LogLevel level) noexcept { SetLow(GetMaskFromLevel(level)); }
    void SetMemLevel(LogLevelMask mask) noexcept { SetHigh(static_cast<unsigned>(mask)); }
    void SetMemLevel(LogLevel level) noexcept { SetHigh(GetMaskFromLevel(level)); }
    void SetRawLevel(unsigned word) noexcept { _level.store(word, std::memory_order_relaxed); }
    unsigned GetRawLevel() const noexcept { return _level.load(std::memory_order_relaxed); }

    unsigned GetLevel() const noexcept { return GetLogLevel(GetRawLevel()); }
    unsigned GetLogLevel() const noexcept { return GetLogLevel(GetRawLevel()); }
    unsigned GetMemLevel() const noexcept { return GetMemLevel(GetRawLevel()); }
    unsigned GetLevelMask() const noexcept { return GetLogLevelMask(GetRawLevel()); }
    unsigned GetMemLevelMask() const noexcept { return GetMemLevelMask(GetRawLevel()); }

    bool IsLevel(LogLevel level) const noexcept { return MaskLogLevel(level, GetRawLevel()) != 0; }

    const std::string& GetName() const noexcept { return _name; }

    // A child of this logger named `name`, with the given level for its log
    // half and this logger's memory half.
    void CreateLogger(const std::string& name, LogLevel level, Ref<Logger>& out);
    void CreateLogger(const std::string& name, LogLevelMask mask, Ref<Logger>& out);

    Logger* GetParent() const noexcept { return _parent.Get(); }

private:
    void SetLow(unsigned mask) noexcept {
        const unsigned old = GetRawLevel();
        _level.store((old & 0xFFFF0000u) | (mask & 0xFFFFu), std::memory_order_relaxed);
    }
    void SetHigh(unsigned mask) noexcept {
        const unsigned old = GetRawLevel();
        _level.store((old & 0xFFFFu) | (mask << 16), std::memory_order_relaxed);
    }

    std::atomic<unsigned> _level;
    const std::string _name;
    Ref<Logger> _parent;
};

// The process's default logger, made on first use with the log half "info"
// and an empty memory half; Service::Initialize sets its level from
// "/logLevel".
TESSERA_EXPORT void GetDefaultLogger(Ref<Logger>& out);
// The same without a reference, for the hot path; never null.
TESSERA_EXPORT Logger* DefaultLogger();

// Emits one record: the message is the template expanded by MessageFormatter.
// The level is not tested again; callers test IsLevel first (TESSERA_LOG does).
TESSERA_EXPORT void LogInternal(Logger* logger, Logger::LogLevel level, const char* format);
TESSERA_EXPORT void LogInternalArgs(Logger* logger, Logger::LogLevel level, const char* format,
                                    const PrintFormatter* const* args, int count);

inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1) {
    const PrintFormatter* a[] = {&a1};
    LogInternalArgs(l, v, f, a, 1);
}
inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1,
                        const PrintFormatter& a2) {
    const PrintFormatter* a[] = {&a1, &a2};
    LogInternalArgs(l, v, f, a, 2);
}
inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1,
                        const PrintFormatter& a2, const PrintFormatter& a3) {
    const PrintFormatter* a[] = {&a1, &a2, &a3};
    LogInternalArgs(l, v, f, a, 3);
}
inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1,
                        const PrintFormatter& a2, const PrintFormatter& a3,
                        const PrintFormatter& a4) {
    const PrintFormatter* a[] = {&a1, &a2, &a3, &a4};
    LogInternalArgs(l, v, f, a, 4);
}
inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1,
                        const PrintFormatter& a2, const PrintFormatter& a3,
                        const PrintFormatter& a4, const PrintFormatter& a5) {
    const PrintFormatter* a[] = {&a1, &a2, &a3, &a4, &a5};
    LogInternalArgs(l, v, f, a, 5);
}
inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1,
                        const PrintFormatter& a2, const PrintFormatter& a3,
                        const PrintFormatter& a4, const PrintFormatter& a5,
                        const PrintFormatter& a6) {
    const PrintFormatter* a[] = {&a1, &a2, &a3, &a4, &a5, &a6};
    LogInternalArgs(l, v, f, a, 6);
}
inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1,
                        const PrintFormatter& a2, const PrintFormatter& a3,
                        const PrintFormatter& a4, const PrintFormatter& a5,
                        const PrintFormatter& a6, const PrintFormatter& a7) {
    const PrintFormatter* a[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7};
    LogInternalArgs(l, v, f, a, 7);
}
inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1,
                        const PrintFormatter& a2, const PrintFormatter& a3,
                        const PrintFormatter& a4, const PrintFormatter& a5,
                        const PrintFormatter& a6, const PrintFormatter& a7,
                        const PrintFormatter& a8) {
    const PrintFormatter* a[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8};
    LogInternalArgs(l, v, f, a, 8);
}
inline void LogInternal(Logger* l, Logger::LogLevel v, const char* f, const PrintFormatter& a1,
                        const PrintFormatter& a2, const PrintFormatter& a3,
                        const PrintFormatter& a4, const PrintFormatter& a5,
                        const PrintFormatter& a6, const PrintFormatter& a7,
                        const PrintFormatter& a8, const PrintFormatter& a9) {
    const PrintFormatter* a[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9};
    LogInternalArgs(l, v, f, a, 9);
}

// How many records the in-memory log keeps.
constexpr std::size_t MEMORY_LOG_RECORDS = 1000;

// The process-wide log manager: the registered writers, the in-memory log and
// the clock of the record prefix. Safe to call from any thread.
class TESSERA_EXPORT LogManager {
public:
    using Clock = System::DateTime (*)();

    // Registers `writer` under `name` for the levels in `levelMask`, replacing
    // a writer registered under the same name.
    static void AddWriter(const std::string& name, const Ref<Writer>& writer, unsigned levelMask);
    // Unregisters and closes the writer; false when no writer has that name.
    static bool RemoveWriter(const std::string& name);
    // Unregisters and closes every writer, and empties the in-memory log.
    static void RemoveAllWriters();

    // The records kept by the in-memory log (the last MEMORY_LOG_RECORDS),
    // oldest first, each a whole line.
    static void GetMemoryLog(std::vector<std::string>& out);

    // The local time of the record prefix; null restores the system clock.
    static void SetClock(Clock clock) noexcept;

    // The record prefix for `logger` and `levelWord` at `now`, as a line
    // written by the calling thread begins.
    static void FormatPrefix(const Logger& logger, unsigned levelWord, const System::DateTime& now,
                             std::string& out);
};

namespace Detail {
inline Logger* LoggerOf(Logger* logger) noexcept {
    return logger;
}
inline Logger* LoggerOf(const Ref<Logger>& logger) noexcept {
    return logger.Get();
}
}  // namespace Detail

}  // namespace Service
}  // namespace Tessera

// Emits a record when `level` is enabled on `logger` (a Logger* or a
// Ref<Logger>); otherwise evaluates none of the message's arguments.
#define TESSERA_LOG(logger, level, ...)                                          \
    do {                                                                         \
        ::Tessera::Service::Logger* const tesseraLogger_ =                       \
            ::Tessera::Service::Detail::LoggerOf(logger);                        \
        if (tesseraLogger_->IsLevel(level)) {                                    \
            ::Tessera::Service::LogInternal(tesseraLogger_, level, __VA_ARGS__); \
        }                                                                        \
    } while (0)
