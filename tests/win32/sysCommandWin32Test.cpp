// Child processes: what Windows does of its own (the rules of the command
// line, the checks by extension, the inherited-handle list, the jobless child
// under a job that forbids break-away).

#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/system/sysCommand.h>
#include <tessera/system/system.h>
#include <tessera/writer.h>

#include "tests/scratchDir.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;

namespace {

std::vector<std::string> Words(const std::string& raw) {
    SysCommandSpec spec;
    ParseRawCommand(raw, spec);
    std::vector<std::string> words{spec.command};
    words.insert(words.end(), spec.args.begin(), spec.args.end());
    return words;
}

std::string CheckFailure(const std::string& command) {
    SysCommandSpec spec;
    spec.command = command;
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    try {
        cmd->Invoke();
    } catch (const FileIOException& e) {
        return e.what();
    } catch (const SystemException& e) {
        return std::string("system: ") + e.what();
    }
    cmd->WaitForExit(60);
    return "started";
}

TEST(SysCommandWin32, ParseRawCommandSplitsAsTheSystemDoes) {
    using V = std::vector<std::string>;
    EXPECT_EQ((V{"C:\\Tools\\x.exe", "a b", "c\\d e"}),
              Words("C:\\Tools\\x.exe \"a b\" c\\\\\"d e\""));
    EXPECT_EQ((V{"x.exe", "a\"b", "c\"d"}), Words("x.exe a\\\"b \"c\"\"d\""));
    // The program name takes no escapes; a quoted one may hold blanks.
    EXPECT_EQ((V{"C:\\Program Files\\a\\", "b"}), Words("\"C:\\Program Files\\a\\\" b"));
    EXPECT_EQ((V{"x", "a\\\\b", "\\\\", "", "%PATH%", "*"}),
              Words("  x a\\\\b \\\\ \"\" %PATH% *  "));
    // Every third quote of a run is a literal one, and the run leaves the
    // quoting open or closed by what is left.
    EXPECT_EQ((V{"x", "\" a\"b"}), Words("x \"\"\"\" a\"\"\"b"));
}

class SysCommandWin32Test : public ScratchDirTest {
protected:
    void SetUp() override {
        ScratchDirTest::SetUp();
        std::filesystem::create_directories(_dir);
    }
};

TEST_F(SysCommandWin32Test, CommandsAreCheckedByTheirExtension) {
    EXPECT_EQ("Command not found or not executable", CheckFailure((_dir / "missing.exe").string()));
    std::filesystem::create_directories(_dir / "folder.exe");
    EXPECT_EQ("Command not found or not executable", CheckFailure((_dir / "folder.exe").string()));
    std::ofstream(_dir / "text.exe") << "not an image";
    EXPECT_EQ("Command not found or not executable", CheckFailure((_dir / "text.exe").string()));
    EXPECT_EQ("Command is not found", CheckFailure((_dir / "missing.bat").string()));
    EXPECT_EQ("Command is not found", CheckFailure((_dir / "missing.cmd").string()));
    std::filesystem::create_directories(_dir / "folder.cmd");
    EXPECT_EQ("Command is not executable", CheckFailure((_dir / "folder.cmd").string()));
    EXPECT_EQ("started", CheckFailure(TESSERA_TEST_CHILD));
    // Without a known extension the start itself fails.
    EXPECT_EQ(0u, CheckFailure((_dir / "missing").string()).find("system: CreateProcessW: "));
}

TEST(SysCommandWin32, OnlyThePipesAreInherited) {
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    const HANDLE leaky = CreateEventW(&inherit, TRUE, FALSE, nullptr);
    ASSERT_NE(nullptr, leaky);
    SysCommandSpec spec;
    spec.command = TESSERA_TEST_CHILD;
    spec.args = {"inherited", std::to_string(reinterpret_cast<std::uintptr_t>(leaky))};
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    EXPECT_EQ("closed", cmd->ReadAll(SC_STDOUT));
    cmd->WaitForExit(60);
    CloseHandle(leaky);
}

// The half of the test below that runs inside the job.
TEST(SysCommandWin32, JoblessInsideAJob) {
    if (std::getenv("TESSERA_TEST_IN_JOB") == nullptr) {
        GTEST_SKIP() << "run by SysCommandWin32.JoblessChildWhenBreakawayIsRefused";
    }
    Ref<StringWriter> log;
    CreateStringWriter(log);
    Service::LogManager::AddWriter("jobless", log, Service::Logger::MASK_WARNING);
    SysCommandSpec spec;
    spec.command = TESSERA_TEST_CHILD;
    spec.args = {"sleep", "30000"};
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    Service::LogManager::RemoveWriter("jobless");
    EXPECT_TRUE(cmd->IsJobless());
    EXPECT_NE(
        std::string::npos,
        log->GetString().find("Access Denied creating process, attempting no breakaway create."));
    EXPECT_NE(std::string::npos, log->GetString().find("Creating a jobless child process."));
    try {
        cmd->KillTree(3);
        ADD_FAILURE() << "KillTree of a jobless child";
    } catch (const InvalidStateException& e) {
        EXPECT_STREQ("No child job to kill", e.what());
    }
    cmd->Kill(4);
    cmd->WaitForExit(60);
    EXPECT_EQ(4, cmd->GetExitCode());
}

TEST(SysCommandWin32, JoblessChildWhenBreakawayIsRefused) {
    // This test program again, in a job that allows no break-away.
    const HANDLE job = CreateJobObjectW(nullptr, nullptr);
    ASSERT_NE(nullptr, job);
    wchar_t self[MAX_PATH];
    ASSERT_GT(GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
    std::wstring line =
        L"\"" + std::wstring(self) +
        L"\" --gtest_filter=SysCommandWin32.JoblessInsideAJob --gtest_also_run_disabled_tests";
    SetEnvironmentVariableW(L"TESSERA_TEST_IN_JOB", L"1");
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    const BOOL created = CreateProcessW(nullptr, &line[0], nullptr, nullptr, FALSE,
                                        CREATE_SUSPENDED, nullptr, nullptr, &startup, &info);
    SetEnvironmentVariableW(L"TESSERA_TEST_IN_JOB", nullptr);
    ASSERT_TRUE(created) << GetLastError();
    ASSERT_TRUE(AssignProcessToJobObject(job, info.hProcess)) << GetLastError();
    ResumeThread(info.hThread);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(info.hProcess, 120000));
    DWORD code = 1;
    GetExitCodeProcess(info.hProcess, &code);
    EXPECT_EQ(0u, code) << "the test inside the job failed";
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    CloseHandle(job);
}

} // namespace
