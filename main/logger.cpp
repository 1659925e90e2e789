// Loggers and the process-wide log manager.

#include <tessera/assert.h>
#include <tessera/logger.h>
#include <tessera/perfCounter/registry.h>
#include <tessera/system/runtime.h>
#include <tessera/system/system.h>

#include "main/logPanic.h"
#include "system/perThread.h"
#include "system/platform/diagnostics.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>

namespace Tessera {
namespace Service {
namespace {

const char* const kLevelNames[] = {"none", "quiet", "panic", "error", "warning",
                                   "info", "verbose", "trivia"};

// A writer that appends to a string it does not own; lives on the stack.
class AppendWriter final : public Writer {
public:
    explicit AppendWriter(std::string& out) noexcept : _out(out) {}
    void Write(const char* data, int length) override {
        _out.append(data, static_cast<std::size_t>(length));
    }
    void Flush() override {}
    void IncRef() const override {}
    void DecRef() const override {}
    std::string ToString() override { return "[AppendWriter]"; }
    int GetRefCount() const override { return 1; }

private:
    std::string& _out;
};

class LogManagerImpl;

// The one manager of the process, installed on first use and never destroyed.
LogManagerImpl* _manager = nullptr;

std::atomic<LogManager::Clock> sClock{nullptr};

// How deep the calling thread is in handing records to the writers: 1 while
// it hands over a record, 2 while it hands over the records that writers
// logged during the first (a writer reporting its own failure). Deeper records
// reach standard error only, so a writer that fails on every record cannot
// recurse.
thread_local int tDepth = 0;

class LogManagerImpl {
public:
    LogManagerImpl() { System::GetSystemFactory()->CreateSimpleMutex(_lock); }
    ~LogManagerImpl() { TESSERA_ASSERT(_refCount == 0); }

    bool IsLocked() const { return _lock->IsLocked(); }

    struct Entry {
        std::string name;
        Ref<Writer> writer;
        unsigned mask;
    };

    class Hold {
    public:
        explicit Hold(LogManagerImpl& m) : _m(m) { _m._lock->Lock(); }
        ~Hold() { _m._lock->Unlock(); }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        LogManagerImpl& _m;
    };

    Ref<System::Mutex> _lock;
    std::vector<Entry> _writers;
    std::vector<std::string> _ring; // the in-memory log
    struct Deferred {
        unsigned bit;
        std::string line;
    };
    std::vector<Deferred> _deferred; // logged by writers while they took a record
    std::size_t _ringNext = 0;
    int _refCount = 0; // loggers attached
    // Records handed to registered writers, per level from "quiet" (bit 0) to
    // "trivia"; published as "LogManager/RecordsWritten/<level>".
    std::int64_t _written[7] = {0};
};

void PublishRecordCounts() {
    std::vector<PerfCounter::Registry::Gauge> gauges;
    for (int i = 0; i < 7; ++i) {
        gauges.emplace_back(kLevelNames[i + 1], [i]() -> std::int64_t {
            LogManagerImpl::Hold hold(*_manager);
            return _manager->_written[i];
        });
    }
    PerfCounter::GetCounterRegistry()->PublishGauges("LogManager/RecordsWritten", gauges);
}

LogManagerImpl* Manager() {
    static LogManagerImpl* const manager = [] {
        TESSERA_ASSERT(_manager == 0);
        _manager = new LogManagerImpl;
        PublishRecordCounts();
        return _manager;
    }();
    return manager;
}

void Attach() {
    TESSERA_ASSERT(_manager != 0);
    TESSERA_ASSERT(_manager->IsLocked());
    ++_manager->_refCount;
}

void Detach() {
    TESSERA_ASSERT(_manager != 0);
    TESSERA_ASSERT(_manager->IsLocked());
    --_manager->_refCount;
}

// The local zone's bias, looked up at most once a second for the whole
// process: the lookup is slow, and the C library's zone state is not safe to
// read from several threads at once.
std::mutex sZoneLock;
std::atomic<long long> sZoneSecond{-1};
std::atomic<int> sZoneBias{0};

System::DateTime LocalNow() {
    const long long utc = static_cast<long long>(System::GetRealTime());
    const long long second = utc / 1000000;
    if (sZoneSecond.load(std::memory_order_acquire) != second) {
        std::lock_guard<std::mutex> hold(sZoneLock);
        if (sZoneSecond.load(std::memory_order_relaxed) != second) {
            sZoneBias.store(System::DateTimeFromUtc(utc, true).GetBias(),
                            std::memory_order_relaxed);
            sZoneSecond.store(second, std::memory_order_release);
        }
    }
    const int bias = sZoneBias.load(std::memory_order_relaxed);
    const System::DateTime wall = System::DateTimeFromUtc(utc - bias * 60000000LL, false);
    return System::DateTime(wall.GetYear(), wall.GetMonth(), wall.GetDay(), wall.GetHour(),
                            wall.GetMinute(),
                            wall.GetSecond() + wall.GetMillisecond() / 1e3 +
                                wall.GetMicrosecond() / 1e6,
                            bias);
}

System::DateTime Now() {
    const LogManager::Clock clock = sClock.load(std::memory_order_relaxed);
    return clock != nullptr ? clock() : LocalNow();
}

void WriteStandardError(const std::string& line) noexcept {
    System::Platform::WriteStandardError(line.data(), line.size());
}

// The date and zone parts of the prefix, kept per thread and recomputed only
// when the day or the zone changes.
struct PrefixCache {
    int year = -1, month = -1, day = -1;
    char date[16] = {0};
    bool haveZone = false;
    int bias = 0;
    char zone[8] = {0};
    char id[24] = {0}; // the thread's identifier, at least five digits
};
thread_local PrefixCache tCache;

// Hands one record to every writer whose mask takes its level (0: all).
void WriteToWriters(LogManagerImpl& m, unsigned bit, const std::string& line) {
    const bool severe = bit != 0 && bit <= Logger::LOG_ERROR;
    for (const LogManagerImpl::Entry& e : m._writers) {
        if (bit != 0 && (e.mask & bit) == 0) continue;
        try {
            e.writer->Write(line.data(), static_cast<int>(line.size()));
        } catch (const std::exception& ex) {
            // The writer lost this record; say so where it cannot be lost.
            WriteStandardError("Log writer '" + e.name + "' failed: " + ex.what() + "\n");
            if (severe) WriteStandardError(line);
        }
    }
}

void Dispatch(Logger* logger, Logger::LogLevel level, const std::string& line) {
    LogManagerImpl& m = *Manager();
    const unsigned word = logger->GetRawLevel();
    const unsigned bit = static_cast<unsigned>(level);
    const bool toWriters = bit == 0 || (Logger::GetLogLevelMask(word) & bit) != 0;
    const bool toMemory = (Logger::GetMemLevelMask(word) & bit) != 0;
    const bool severe = bit != 0 && bit <= Logger::LOG_ERROR;

    LogManagerImpl::Hold hold(m);
    if (toMemory) {
        if (m._ring.size() < Service::MEMORY_LOG_RECORDS) {
            m._ring.push_back(line);
        } else {
            m._ring[m._ringNext] = line;
        }
        m._ringNext = (m._ringNext + 1) % Service::MEMORY_LOG_RECORDS;
    }
    if (!toWriters) return;
    if (tDepth == 1) {
        // A writer logged this while taking another record: every writer gets
        // it once that record is through.
        m._deferred.push_back({bit, line});
        return;
    }
    if (tDepth > 0 || m._writers.empty()) {
        if (severe) WriteStandardError(line);
        return;
    }
    if (bit != 0) {
        int index = 0;
        while ((bit >> (index + 1)) != 0) ++index;
        if (index < 7) ++m._written[index];
    }
    ++tDepth;
    WriteToWriters(m, bit, line);
    if (!m._deferred.empty()) {
        std::vector<LogManagerImpl::Deferred> deferred;
        deferred.swap(m._deferred);
        ++tDepth;
        for (const auto& record : deferred) WriteToWriters(m, record.bit, record.line);
        --tDepth;
    }
    --tDepth;
}

} // namespace

// ---- Logger ----

Logger::Logger(const std::string& name, unsigned rawLevel) : _level(rawLevel), _name(name) {
    LogManagerImpl& m = *Manager();
    LogManagerImpl::Hold hold(m);
    Attach();
}

Logger::~Logger() {
    LogManagerImpl& m = *Manager();
    LogManagerImpl::Hold hold(m);
    Detach();
}

const char* Logger::GetLevelName(unsigned levelWord) noexcept {
    unsigned half = levelWord >= 0x10000u ? (levelWord >> 16) : (levelWord & 0xFFFFu);
    if (half == 0) return kLevelNames[0];
    unsigned bits = half & 0xFFu;
    int position = 0;
    if (bits & 0xF0u) {
        bits >>= 4;
        position += 4;
    }
    if (bits & 0x0Cu) {
        bits >>= 2;
        position += 2;
    }
    if (bits & 0x02u) position += 1;
    return kLevelNames[1 + position];
}

bool Logger::ParseLevel(const std::string& name, LogLevel& level) noexcept {
    for (int i = 0; i < 8; ++i) {
        if (name == kLevelNames[i]) {
            level = static_cast<LogLevel>(i == 0 ? 0 : 1 << (i - 1));
            return true;
        }
    }
    return false;
}

void Logger::CreateLogger(const std::string& name, LogLevel level, Ref<Logger>& out) {
    CreateLogger(name, GetMaskFromLevel(level), out);
}

void Logger::CreateLogger(const std::string& name, LogLevelMask mask, Ref<Logger>& out) {
    Ref<Logger> child(new Logger(name, MakeCombinedLevel(mask, GetMemLevelMask())));
    child->_parent = this;
    out = std::move(child);
}

Logger* DefaultLogger() {
    static Logger* const logger = [] {
        auto* created = new Logger("default", Logger::MASK_INFO);
        created->IncRef(); // the process keeps it
        return created;
    }();
    return logger;
}

void GetDefaultLogger(Ref<Logger>& out) { out = DefaultLogger(); }

// ---- records ----

void LogManager::FormatPrefix(const Logger& logger, unsigned levelWord,
                              const System::DateTime& now, std::string& out) {
    PrefixCache& c = tCache;
    if (now.GetDay() != c.day || now.GetMonth() != c.month || now.GetYear() != c.year) {
        now.ToShortStringDate(c.date, sizeof(c.date));
        c.year = now.GetYear();
        c.month = now.GetMonth();
        c.day = now.GetDay();
    }
    if (!c.haveZone || now.GetBias() != c.bias) {
        const int bias = now.GetBias();
        if (bias == 0) {
            std::strcpy(c.zone, "Z");
        } else {
            // The bias is what local time adds to reach UTC: east is negative.
            const int minutesAbs = bias < 0 ? -bias : bias;
            int hours = minutesAbs / 60;
            int minutes = minutesAbs % 60;
            if (hours > 14) hours = 14;
            if (minutes > 59) minutes = 59;
            std::snprintf(c.zone, sizeof(c.zone), "%c%02d:%02d", bias > 0 ? '-' : '+', hours,
                          minutes);
        }
        c.bias = bias;
        c.haveZone = true;
    }
    if (c.id[0] == '\0') {
        std::snprintf(c.id, sizeof(c.id), "%5.5" PRId64,
                      static_cast<std::int64_t>(System::GetThreadId()));
    }
    int ms = now.GetMillisecond();
    if (ms < 0) ms = 0;
    if (ms > 999) ms = 999;

    // "%sT%s%s [%5.5I64d %s '" into 65 bytes, assembled by hand: this runs
    // for every record.
    char prefix[65];
    std::size_t n = 0;
    const auto append = [&](const char* text) {
        while (*text != '\0' && n + 1 < sizeof(prefix)) prefix[n++] = *text++;
    };
    append(c.date);
    append("T");
    char time[16];
    now.ToShortStringTime(time, sizeof(time));
    append(time);
    const char fraction[5] = {'.', static_cast<char>('0' + ms / 100),
                              static_cast<char>('0' + ms / 10 % 10),
                              static_cast<char>('0' + ms % 10), '\0'};
    append(fraction);
    append(c.zone);
    append(" [");
    append(c.id);
    append(" ");
    append(Logger::GetLevelName(levelWord));
    append(" '");
    prefix[n] = '\0';
    out += prefix;
    out += logger.GetName();
    out += '\'';
    const std::string states = System::GetThreadStates();
    if (states.empty()) {
        out += "] ";
    } else {
        out += ' ';
        out += states;
        out += "] ";
    }
}

void LogInternalArgs(Logger* logger, Logger::LogLevel level, const char* format,
                     const PrintFormatter* const* args, int count) {
    // Each thread keeps its line buffer, so that a record allocates only when
    // it outgrows the longest before it.
    static System::PerThread<std::string>* lines = new System::PerThread<std::string>;
    std::string nested;
    // A formatter calling back into the log must not reuse the buffer in use.
    std::string& line = tDepth == 0 ? lines->Get() : nested;
    line.clear();
    LogManager::FormatPrefix(*logger, static_cast<unsigned>(level), Now(), line);
    AppendWriter out(line);
    try {
        MessageFormatter::PrintArgs(&out, format, args, count);
    } catch (const std::exception& e) {
        line += " [message formatting failed: ";
        line += e.what();
        line += ']';
    }
    line += '\n';
    Dispatch(logger, level, line);
}

void LogInternal(Logger* logger, Logger::LogLevel level, const char* format) {
    LogInternalArgs(logger, level, format, nullptr, 0);
}

// ---- the manager ----

void LogManager::AddWriter(const std::string& name, const Ref<Writer>& writer,
                           unsigned levelMask) {
    TESSERA_ASSERT(!writer.IsNull());
    LogManagerImpl& m = *Manager();
    Ref<Writer> replaced;
    {
        LogManagerImpl::Hold hold(m);
        for (LogManagerImpl::Entry& e : m._writers) {
            if (e.name == name) {
                replaced = e.writer;
                e.writer = writer;
                e.mask = levelMask;
                break;
            }
        }
        if (replaced.IsNull()) m._writers.push_back({name, writer, levelMask});
    }
    if (!replaced.IsNull() && replaced != writer) replaced->Close();
}

bool LogManager::RemoveWriter(const std::string& name) {
    LogManagerImpl& m = *Manager();
    Ref<Writer> removed;
    {
        LogManagerImpl::Hold hold(m);
        for (auto it = m._writers.begin(); it != m._writers.end(); ++it) {
            if (it->name == name) {
                removed = it->writer;
                m._writers.erase(it);
                break;
            }
        }
    }
    if (removed.IsNull()) return false;
    removed->Close();
    return true;
}

void LogManager::RemoveAllWriters() {
    LogManagerImpl& m = *Manager();
    std::vector<LogManagerImpl::Entry> removed;
    {
        LogManagerImpl::Hold hold(m);
        removed.swap(m._writers);
        m._ring.clear();
        m._ringNext = 0;
    }
    for (LogManagerImpl::Entry& e : removed) e.writer->Close();
}

void LogManager::GetMemoryLog(std::vector<std::string>& out) {
    LogManagerImpl& m = *Manager();
    LogManagerImpl::Hold hold(m);
    out.clear();
    const std::size_t n = m._ring.size();
    const std::size_t first = n < MEMORY_LOG_RECORDS ? 0 : m._ringNext;
    for (std::size_t i = 0; i < n; ++i) out.push_back(m._ring[(first + i) % n]);
}

void LogPanicReport(const char* report) noexcept {
    static std::atomic<bool> reporting{false};
    if (_manager == nullptr || reporting.exchange(true)) return;
    try {
        bool haveWriters;
        {
            LogManagerImpl::Hold hold(*_manager);
            haveWriters = !_manager->_writers.empty();
        }
        if (haveWriters) {
            std::string text(report);
            if (!text.empty() && text.back() == '\n') text.pop_back();
            LogInternal(DefaultLogger(), Logger::LOG_PANIC, "%1", text);
        }
    } catch (...) {
        // The report is already on standard error.
    }
}

void LogManager::SetClock(Clock clock) noexcept { sClock.store(clock, std::memory_order_relaxed); }

} // namespace Service
} // namespace Tessera
