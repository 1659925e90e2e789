// The journal survives TerminateProcess at any moment: the Windows half of
// the crash test (see tests/journal/journalCrash.h).

#include "tests/journal/journalCrash.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>

namespace {

class LineReader {
public:
    explicit LineReader(HANDLE pipe) : _pipe(pipe) {}
    bool Next(std::string& line) {
        for (;;) {
            const std::string::size_type nl = _buffer.find('\n');
            if (nl != std::string::npos) {
                line = _buffer.substr(0, nl);
                if (!line.empty() && line.back() == '\r') line.pop_back();
                _buffer.erase(0, nl + 1);
                return true;
            }
            char chunk[4096];
            DWORD n = 0;
            if (!::ReadFile(_pipe, chunk, sizeof(chunk), &n, nullptr) || n == 0) return false;
            _buffer.append(chunk, n);
        }
    }

private:
    HANDLE _pipe;
    std::string _buffer;
};

TEST(JournalCrashTest, EveryAcknowledgedEntrySurvivesTerminateProcess) {
    const std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                      ("tessera-crash-" + std::to_string(::GetCurrentProcessId()));
    std::filesystem::remove_all(dir);
    JournalCrash::BeginParent(dir.u8string());
    wchar_t self[MAX_PATH];
    ASSERT_GT(::GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
    ASSERT_TRUE(::SetEnvironmentVariableW(L"TESSERA_JOURNAL_CRASH_CHILD", dir.wstring().c_str()));
    std::wstring filter(JournalCrash::kChildFilter,
                        JournalCrash::kChildFilter + std::strlen(JournalCrash::kChildFilter));
    std::wstring command = L"\"" + std::wstring(self) + L"\" " + filter;

    std::mt19937 random(std::random_device{}());
    const int kRuns = 50;
    int torn = 0, totalAcked = 0;
    for (int run = 0; run < kRuns; ++run) {
        SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
        HANDLE readEnd = nullptr, writeEnd = nullptr;
        ASSERT_TRUE(::CreatePipe(&readEnd, &writeEnd, &inherit, 0));
        ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = writeEnd;
        startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
        startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
        PROCESS_INFORMATION child = {};
        std::wstring line16 = command;
        ASSERT_TRUE(::CreateProcessW(self, &line16[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                     &startup, &child));
        ::CloseHandle(writeEnd);

        LineReader lines(readEnd);
        std::string line, journal;
        while (journal.empty() && lines.Next(line)) {
            if (line.rfind("@J ", 0) == 0) journal = line.substr(3);
        }
        ASSERT_FALSE(journal.empty()) << "the child made no journal";
        const int waitFor = static_cast<int>(random() % 4);
        int acked = 0;
        while (acked < waitFor && lines.Next(line)) acked += line.rfind("@A ", 0) == 0;
        ::Sleep(static_cast<DWORD>(random() % 3));
        ::TerminateProcess(child.hProcess, 9);
        ::WaitForSingleObject(child.hProcess, INFINITE);
        while (lines.Next(line)) acked += line.rfind("@A ", 0) == 0;
        ::CloseHandle(readEnd);
        ::CloseHandle(child.hThread);
        ::CloseHandle(child.hProcess);

        bool wasTorn = false;
        const std::string failure = JournalCrash::CheckAfterKill(journal, acked, wasTorn);
        ASSERT_EQ(failure, "") << "run " << run << ", " << acked << " acknowledged";
        torn += wasTorn;
        totalAcked += acked;
    }
    ::SetEnvironmentVariableW(L"TESSERA_JOURNAL_CRASH_CHILD", nullptr);
    JournalCrash::EndParent();
    std::filesystem::remove_all(dir);
    std::printf("[ crash    ] %d kills, %d acknowledged entries, %d torn records cut\n", kRuns,
                totalAcked, torn);
}

}  // namespace
