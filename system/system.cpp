// The process-wide system factory, its locks and conditions, and its
// backtraces.

#include <tessera/system/system.h>

#include "system/logWriters.h"
#include "system/platform/diagnostics.h"
#include "system/syncImpl.h"
#include "system/systemFactoryImpl.h"

#include <atomic>

namespace Tessera {
namespace System {
namespace {

class BacktraceImpl final : public ObjectImpl, public Backtrace {
public:
    explicit BacktraceImpl(bool names) noexcept : _names(names) {}

    Stacktrace& Trace() noexcept { return _trace; }
    const Stacktrace& GetStacktrace() const override { return _trace; }
    std::string ToString() override {
        return Platform::DescribeFrames(_trace.GetStackFrames(), _trace.GetNumStackFrames(),
                                        _names);
    }

private:
    Stacktrace _trace;
    const bool _names;
};

std::atomic<SystemFactory*> sFactory{nullptr};

} // namespace

SystemFactoryImpl::SystemFactoryImpl() = default;
SystemFactoryImpl::~SystemFactoryImpl() = default;

void SystemFactoryImpl::CreateSimpleMutex(Ref<Mutex>& out) { out = new MutexImpl; }

void SystemFactoryImpl::CreateRWLock(RWLockableObject::LockMode mode, Ref<RWLock>& out) {
    out = new RWLockImpl(mode);
}

void SystemFactoryImpl::CreateCondition(Ref<Condition>& out) { out = new ConditionImpl; }

void SystemFactoryImpl::CreateConsoleWriter(Ref<Writer>& out) { out = NewStandardWriter(false); }

void SystemFactoryImpl::CreateErrorWriter(Ref<Writer>& out) { out = NewStandardWriter(true); }

void SystemFactoryImpl::CreateFileWriter(const std::string& path, const std::string& header,
                                         bool append, Ref<Writer>& out) {
    out = NewFileWriter(path, header, append);
}

void SystemFactoryImpl::CreateFileWriter(const std::string& path, bool append, Ref<Writer>& out) {
    out = NewFileWriter(path, std::string(), append);
}

void SystemFactoryImpl::CreateFileRoller(const std::string& directory, const std::string& name,
                                         const std::string& extension, const std::string& header,
                                         std::int32_t numFiles, std::uint32_t maxSize,
                                         Ref<FileRoller>& out) {
    out = NewFileRoller(directory, name, extension, header, RolloverFailureAction::CONTINUE,
                        numFiles, maxSize);
}

void SystemFactoryImpl::CreateFileRoller(const std::string& directory, const std::string& name,
                                         const std::string& extension, const std::string& header,
                                         const std::string& failureAction, std::int32_t numFiles,
                                         std::uint32_t maxSize, Ref<FileRoller>& out) {
    out = NewFileRoller(directory, name, extension, header,
                        ParseRolloverFailureAction(failureAction), numFiles, maxSize);
}

void SystemFactoryImpl::CreateRolloverLogWriter(const std::string& directory,
                                                const std::string& name, std::int64_t maxSize,
                                                std::int32_t numFiles, bool append,
                                                Ref<Writer>& out) {
    out = NewRolloverLogWriter(directory, name, maxSize, numFiles,
                               RolloverFailureAction::CONTINUE, append);
}

void SystemFactoryImpl::CreateRolloverLogWriter(const std::string& directory,
                                                const std::string& name, std::int64_t maxSize,
                                                std::int32_t numFiles,
                                                const std::string& failureAction, bool append,
                                                Ref<Writer>& out) {
    out = NewRolloverLogWriter(directory, name, maxSize, numFiles,
                               ParseRolloverFailureAction(failureAction), append);
}

void SystemFactoryImpl::CreateBacktrace(Ref<Backtrace>& out) {
    auto* trace = new BacktraceImpl(true);
    out = trace;
    trace->Trace().Capture(1); // leave out this function
}

void SystemFactoryImpl::CreateQuickBacktrace(Ref<Backtrace>& out) {
    auto* trace = new BacktraceImpl(false);
    out = trace;
    trace->Trace().Capture(1);
}

SystemFactory* GetSystemFactory() {
    SystemFactory* factory = sFactory.load(std::memory_order_acquire);
    if (factory != nullptr) {
        return factory;
    }
    auto* created = new SystemFactoryImpl;
    created->IncRef(); // the process keeps it
    if (sFactory.compare_exchange_strong(factory, created)) {
        return created;
    }
    created->DecRef(); // another thread installed one first
    return factory;
}

void SetSystemFactory(SystemFactory* factory) {
    factory->IncRef(); // kept for the life of the process, see the header
    sFactory.store(factory, std::memory_order_release);
}

} // namespace System
} // namespace Tessera
