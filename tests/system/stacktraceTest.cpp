#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/system/sysCommand.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

using namespace Tessera;
using System::Stacktrace;

namespace {

// Called through a pointer the optimizer cannot see through, so each call is
// a real frame.
int sCalls = 0;
void CaptureTwo(Stacktrace* here, Stacktrace* caller) {
    here->Capture();
    caller->Capture(1);
    ++sCalls; // no tail call: this frame stays while Capture(1) runs
}
void (*volatile sCaptureTwo)(Stacktrace*, Stacktrace*) = &CaptureTwo;

Stacktrace CaptureAt(int site) {
    Stacktrace a, b;
    if (site == 0) {
        sCaptureTwo(&a, &b);
    } else {
        sCaptureTwo(&a, &b);
    }
    return a;
}

} // namespace

TEST(Stacktrace, SkipHashAndOrder) {
    Stacktrace here, caller;
    sCaptureTwo(&here, &caller);
    ASSERT_GE(here.GetNumStackFrames(), 3);
    ASSERT_LE(here.GetNumStackFrames(), static_cast<int>(Stacktrace::MAX_FRAMES));
    // Skipping one frame drops CaptureTwo: the caller's frame comes first.
    EXPECT_EQ(caller.GetNumStackFrames(), here.GetNumStackFrames() - 1);
    EXPECT_EQ(caller.GetStackFrame(0), here.GetStackFrame(1));
    EXPECT_EQ(here.GetStackFrame(-1), nullptr);
    EXPECT_EQ(here.GetStackFrame(here.GetNumStackFrames()), nullptr);

    // The same call site twice: equal; two call sites: different, and ordered.
    Stacktrace same[2];
    for (Stacktrace& t : same) t = CaptureAt(0);
    const Stacktrace& a1 = same[0];
    const Stacktrace& a2 = same[1];
    const Stacktrace b = CaptureAt(1);
    EXPECT_EQ(a1, a2);
    EXPECT_EQ(a1.GetHash(), a2.GetHash());
    EXPECT_EQ(a1.Compare(a2), 0);
    EXPECT_NE(a1, b);
    EXPECT_TRUE((a1 < b) != (b < a1));
    EXPECT_EQ(a1.Compare(b), -b.Compare(a1));
    std::set<Stacktrace> distinct{a1, a2, b};
    EXPECT_EQ(distinct.size(), 2u);

    Stacktrace full;
    full.CaptureFull();
    EXPECT_GE(full.GetNumStackFrames(), 2);
    EXPECT_EQ(Stacktrace().GetNumStackFrames(), 0);
}

TEST(Backtrace, FactoryGivesFullAndQuickTraces) {
    System::SystemFactory* factory = System::GetSystemFactory();
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(factory, System::GetSystemFactory());
    Ref<System::Backtrace> full, quick;
    factory->CreateBacktrace(full);
    factory->CreateQuickBacktrace(quick);
    ASSERT_FALSE(full.IsNull());
    ASSERT_FALSE(quick.IsNull());
    EXPECT_GE(full->GetStacktrace().GetNumStackFrames(), 2);
    // One line per frame, numbered from 0.
    const std::string text = quick->ToString();
    int lines = 0;
    for (char c : text) lines += c == '\n';
    EXPECT_EQ(lines, quick->GetStacktrace().GetNumStackFrames());
    EXPECT_EQ(text.rfind("#0 0x", 0), 0u);
    EXPECT_NE(text.find(" in "), std::string::npos);
}

namespace {

class CountingFactory : public ObjectImpl, public System::SystemFactory {
public:
    void CreateSimpleMutex(Ref<System::Mutex>& out) override { _inner->CreateSimpleMutex(out); }
    void CreateRWLock(System::RWLockableObject::LockMode mode, Ref<System::RWLock>& out) override {
        _inner->CreateRWLock(mode, out);
    }
    void CreateCondition(Ref<System::Condition>& out) override { _inner->CreateCondition(out); }
    void CreateTCPClientSocket(Ref<System::TCPClientSocket>& out) override {
        _inner->CreateTCPClientSocket(out);
    }
    void CreateTCPServerSocket(Ref<System::TCPServerSocket>& out) override {
        _inner->CreateTCPServerSocket(out);
    }
    void CreateThreadPool(const Service::Config::View* config,
                          Ref<System::ThreadPool>& out) override {
        _inner->CreateThreadPool(config, out);
    }
    void CreateNamedPipeClientStream(const std::string& name, bool waitIfBusy,
                                     Ref<System::NamedPipeClientStream>& out) override {
        _inner->CreateNamedPipeClientStream(name, waitIfBusy, out);
    }
    void CreateNamedPipeServer(const std::string& name, std::int32_t maxInstances,
                               Ref<System::NamedPipeServer>& out) override {
        _inner->CreateNamedPipeServer(name, maxInstances, out);
    }
    void CreateTCPClientSocket(System::ThreadPool* pool,
                               Ref<System::TCPClientSocket>& out) override {
        _inner->CreateTCPClientSocket(pool, out);
    }
    void CreateTCPServerSocket(System::ThreadPool* pool,
                               Ref<System::TCPServerSocket>& out) override {
        _inner->CreateTCPServerSocket(pool, out);
    }
    void CreateNamedPipeClientStream(System::ThreadPool* pool, const std::string& name,
                                     bool waitIfBusy,
                                     Ref<System::NamedPipeClientStream>& out) override {
        _inner->CreateNamedPipeClientStream(pool, name, waitIfBusy, out);
    }
    void CreateNamedPipeServer(System::ThreadPool* pool, const std::string& name,
                               std::int32_t maxInstances,
                               Ref<System::NamedPipeServer>& out) override {
        _inner->CreateNamedPipeServer(pool, name, maxInstances, out);
    }
    void CreateConsoleWriter(Ref<Writer>& out) override { _inner->CreateConsoleWriter(out); }
    void CreateErrorWriter(Ref<Writer>& out) override { _inner->CreateErrorWriter(out); }
    void CreateFileWriter(const std::string& path, const std::string& header, bool append,
                          Ref<Writer>& out) override {
        _inner->CreateFileWriter(path, header, append, out);
    }
    void CreateFileWriter(const std::string& path, bool append, Ref<Writer>& out) override {
        _inner->CreateFileWriter(path, append, out);
    }
    void CreateFileRoller(const std::string& directory, const std::string& name,
                          const std::string& extension, const std::string& header,
                          std::int32_t numFiles, std::uint32_t maxSize,
                          Ref<System::FileRoller>& out) override {
        _inner->CreateFileRoller(directory, name, extension, header, numFiles, maxSize, out);
    }
    void CreateFileRoller(const std::string& directory, const std::string& name,
                          const std::string& extension, const std::string& header,
                          const std::string& failureAction, std::int32_t numFiles,
                          std::uint32_t maxSize, Ref<System::FileRoller>& out) override {
        _inner->CreateFileRoller(directory, name, extension, header, failureAction, numFiles,
                                 maxSize, out);
    }
    void CreateRolloverLogWriter(const std::string& directory, const std::string& name,
                                 std::int64_t maxSize, std::int32_t numFiles, bool append,
                                 Ref<Writer>& out) override {
        _inner->CreateRolloverLogWriter(directory, name, maxSize, numFiles, append, out);
    }
    void CreateRolloverLogWriter(const std::string& directory, const std::string& name,
                                 std::int64_t maxSize, std::int32_t numFiles,
                                 const std::string& failureAction, bool append,
                                 Ref<Writer>& out) override {
        _inner->CreateRolloverLogWriter(directory, name, maxSize, numFiles, failureAction, append,
                                        out);
    }
    void CreateBacktrace(Ref<System::Backtrace>& out) override {
        ++created;
        _inner->CreateQuickBacktrace(out);
    }
    void CreateQuickBacktrace(Ref<System::Backtrace>& out) override {
        _inner->CreateQuickBacktrace(out);
    }
    void GetSharedLibrary(const std::string& path, Ref<System::SharedLibrary>& out) override {
        _inner->GetSharedLibrary(path, out);
    }
    void GetFile(const std::string& path, Ref<System::File>& out) override {
        _inner->GetFile(path, out);
    }
    void GetFileHandle(const std::string& path, System::FileHandle::OpenMode mode,
                       Ref<System::FileHandle>& out) override {
        _inner->GetFileHandle(path, mode, out);
    }
    void GetTempDir(std::string& out) override { _inner->GetTempDir(out); }
    void CreateSysCommand(Ref<System::SysCommand>& out) override { _inner->CreateSysCommand(out); }
    void CreateSysCommand(const System::SysCommandSpec& spec,
                          Ref<System::SysCommand>& out) override {
        _inner->CreateSysCommand(spec, out);
    }
    int created = 0;

private:
    System::SystemFactory* _inner = System::GetSystemFactory();
};

} // namespace

TEST(SystemFactoryDeathTest, AnInstalledFactoryServesTheLibrary) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto* mine = new CountingFactory;
            System::SetSystemFactory(mine);
            bool same = System::GetSystemFactory() == mine;
            try {
                throw TimeoutException("t");
            } catch (const TimeoutException&) {}
            std::exit(same && mine->created == 1 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(PanicDeathTest, ReportNamesConditionSourceAndLine) {
    const int expectedLine = __LINE__ + 1;
    EXPECT_DEATH(TESSERA_ASSERT(1 + 1 == 3),
                 "PANIC: Assertion \"1 \\+ 1 == 3\" failed at tests/system/stacktraceTest:" +
                     std::to_string(expectedLine) + "\nBacktrace:\n#0 0x");
    EXPECT_DEATH(PanicExit("Worker: unhandled exception"),
                 "PANIC: Worker: unhandled exception\nBacktrace:\n#0 0x");
}
