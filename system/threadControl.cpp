// The thread control: configured set-up around every thread the library starts.

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/system/runtime.h>
#include <tessera/system/thread.h>

#include "system/fault.h"
#include "system/platform/diagnostics.h"
#include "system/platform/nativeError.h"
#include "system/platform/thread.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>

namespace Tessera {
namespace System {
namespace {

using Service::Logger;

struct Settings {
    bool useSETranslator = true;
    bool panicUnknownSE = false;
    ThreadControl::SETermination termination = ThreadControl::PanicExitTermination;
    ThreadControl::COMModel com = ThreadControl::NoCOM;
    bool stackImmediateCommit = true;
};

Settings ReadSettings(const Service::Config::View& config) {
    Settings s;
    s.useSETranslator = config.GetBool("UseSETranslator", true);
    s.panicUnknownSE = config.GetBool("PanicUnknownSE", false);
    const std::string termination = config.GetString("SETermination", "PanicExit");
    if (termination == "UnhandledExceptionFilter") {
        s.termination = ThreadControl::UnhandledExceptionFilterTermination;
    } else if (termination == "DebugBreak") {
        s.termination = ThreadControl::DebugBreakTermination;
    } else if (termination != "PanicExit") {
        TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_WARNING,
                    "Unrecognized SE termination value '%1' specified", termination);
    }
    const std::string com = config.GetString("initializeCOM", "none");
    if (com == "sta") {
        s.com = ThreadControl::SingleThreadedApartment;
        TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_INFO,
                    "Setting COM threading model to STA");
    } else if (com == "mta") {
        s.com = ThreadControl::MultiThreadedApartment;
        TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_INFO,
                    "Setting COM threading model to MTA");
    } else if (com != "none") {
        TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_WARNING,
                    "Unrecognized COM initialization value '%1' specified", com);
    }
    s.stackImmediateCommit = config.GetBool("windowsStackImmediateCommit", true);
    TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_INFO,
                "ThreadPool windowsStackImmediateCommit = %1", s.stackImmediateCommit);
    return s;
}

// Tells WaitForAnyThread that some thread of the library has ended. Never
// destroyed: at process exit the system stops the other threads wherever they
// are, possibly inside the threads library's own lock (mingw's holds one
// global lock for condition variables made without an explicit init), and a
// destructor run after that waits on it for ever.
std::mutex& sEndedLock = *new std::mutex;
std::condition_variable& sEnded = *new std::condition_variable;

class ThreadImpl final : public ObjectImpl, public Thread {
public:
    explicit ThreadImpl(const boost::function<void()>& body) : _body(body) {}
    // A thread never joined runs on to its end on its own: its native handle
    // is released here, with the last reference.
    ~ThreadImpl() override {
        if (_native != nullptr) Platform::ReleaseNativeThread(_native);
    }

    std::uint64_t GetId() const override { return _id.Read(); }
    bool IsRunning() const override { return !_ended.Read(); }

    void Run(ThreadControl& control);

    Platform::NativeThread* _native = nullptr;
    bool _joined = false; // by the joining thread only

private:
    boost::function<void()> _body;
    Atomic<long long> _id;
    Atomic<bool> _ended;
};

thread_local ThreadImpl* tThisThread = nullptr;

void ThreadImpl::Run(ThreadControl& control) {
    _id.Write(static_cast<long long>(GetThreadId()));
    tThisThread = this;
    control.ThreadSetUp();
    try {
        _body();
    } catch (const std::exception& e) {
        const std::string text = std::string("Unhandled exception on a library thread: ") +
                                 typeid(e).name() + "(" + e.what() + ")";
        PanicExit(text.c_str());
    } catch (...) {
        PanicExit("Unhandled exception of unknown type on a library thread");
    }
    control.ThreadTearDown();
    tThisThread = nullptr;
    {
        std::lock_guard<std::mutex> hold(sEndedLock);
        _ended.Write(true);
    }
    sEnded.notify_all();
}

// The fault policy, called by the platform's fault handlers (see
// system/platform/thread.h): the report, then the configured ending.
Settings sFaultSettings; // as the thread control was built with, fixed from then on

Platform::FaultAction OnFault(const Fault::Info& info) {
    Fault::WriteReport(info);
    if (info.resumable && !Fault::EndsProcess(info.code, sFaultSettings.panicUnknownSE)) {
        return Platform::FaultAction::Continue;
    }
    switch (sFaultSettings.termination) {
    case ThreadControl::UnhandledExceptionFilterTermination:
        return Platform::FaultAction::SystemDefault;
    case ThreadControl::DebugBreakTermination: return Platform::FaultAction::DebugBreak;
    case ThreadControl::PanicExitTermination: break;
    }
    // Inside a signal handler only async-signal-safe calls may be made.
    if (!info.resumable) Fault::PanicFromHandler("fatal fault");
    PanicExit("fatal structured exception");
}

void OnFatal(const char* reason) { PanicExit(reason); }

[[noreturn]] void OnTerminate() {
    TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_ERROR, "TerminateHandler called");
    PanicExit("std::terminate called");
}

class ThreadControlImpl final : public ObjectImpl, public ThreadControl {
public:
    explicit ThreadControlImpl(const Settings& settings) : _settings(settings) {
        if (_settings.useSETranslator) {
            sFaultSettings = _settings;
            Platform::InstallFaultHandlers({&OnFault, &OnFatal});
            std::set_terminate(&OnTerminate);
        }
    }

    void StartThread(const boost::function<void()>& body, std::size_t stackSize,
                     Ref<Thread>& out) override {
        Ref<ThreadImpl> thread(new ThreadImpl(body));
        struct Start {
            static void Entry(void* argument) {
                auto* t = static_cast<Start*>(argument);
                Ref<ThreadImpl> self = Ref<ThreadImpl>::Adopt(t->thread);
                Ref<ThreadControl> control = Ref<ThreadControl>::Adopt(t->control);
                delete t;
                self->Run(*control);
            }
            ThreadImpl* thread;
            ThreadControl* control;
        };
        // The new thread owns a reference to itself and to this control for
        // as long as it runs.
        auto* start = new Start{thread.Get(), this};
        thread->IncRef();
        IncRef();
        if (const Platform::NativeError error = Platform::StartNativeThread(
                &Start::Entry, start, stackSize, _settings.stackImmediateCommit, thread->_native)) {
            thread->DecRef();
            DecRef();
            delete start;
            ThrowSystemError(error, "Cannot start a thread");
        }
        out = thread;
    }

    void JoinThread(Thread* thread) override {
        auto* t = dynamic_cast<ThreadImpl*>(thread);
        TESSERA_ASSERT(t != 0);
        TESSERA_ASSERT(t != tThisThread);
        TESSERA_ASSERT(!t->_joined);
        t->_joined = true;
        Platform::JoinNativeThread(t->_native);
        t->_native = nullptr;
    }

    int WaitForAnyThread(const std::vector<Thread*>& threads) override {
        TESSERA_ASSERT(!threads.empty());
        TESSERA_ASSERT_REPORT(static_cast<int>(threads.size()) <= GetMaxPollables(),
                              "(int) threads.size() <= GetMaxPollables()");
        std::unique_lock<std::mutex> hold(sEndedLock);
        for (;;) {
            for (std::size_t i = 0; i < threads.size(); ++i) {
                if (!threads[i]->IsRunning()) return static_cast<int>(i);
            }
            sEnded.wait(hold);
        }
    }

    int GetMaxPollables() const override { return 64; }

    void ThreadSetUp() override {
        if (const Platform::NativeError error =
                Platform::SetUpThread(_settings.useSETranslator, _settings.com)) {
            TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_WARNING,
                        "Failed to initialize COM runtime, error: %1", static_cast<long>(error));
        }
    }
    void ThreadTearDown() override {
        Platform::TearDownThread(_settings.useSETranslator, _settings.com);
    }

    bool UseSETranslator() const override { return _settings.useSETranslator; }
    bool PanicUnknownSE() const override { return _settings.panicUnknownSE; }
    SETermination GetSETermination() const override { return _settings.termination; }
    COMModel GetCOMModel() const override { return _settings.com; }
    bool GetStackImmediateCommit() const override { return _settings.stackImmediateCommit; }

private:
    const Settings _settings;
};

std::mutex sControlLock;
Settings sSettings; // from Init, or the defaults
ThreadControlImpl* sControl = nullptr; // built once, kept for the process

} // namespace

void Init(Service::Config::View* config) {
    std::lock_guard<std::mutex> hold(sControlLock);
    if (sControl != nullptr || config == nullptr) return;
    // Read now, once: a bad value reaches the caller of Init.
    sSettings = ReadSettings(*config);
}

void GetThreadControl(Ref<ThreadControl>& out) {
    std::lock_guard<std::mutex> hold(sControlLock);
    if (sControl == nullptr) {
        sControl = new ThreadControlImpl(sSettings);
        sControl->IncRef();
        sControl->ThreadSetUp(); // the thread that builds it, usually the main one
    }
    out = sControl;
}

bool ThisThreadExists() { return tThisThread != nullptr; }

void GetThisThread(Ref<Thread>& out) {
    if (tThisThread == nullptr) {
        throw NotFoundException("The calling thread was not started by the library");
    }
    out = tThisThread;
}

} // namespace System
} // namespace Tessera
