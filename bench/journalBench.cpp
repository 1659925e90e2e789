// Durable appends of 100-byte records: the file-operations journal against
// the same loop written with the system calls (open, write, fdatasync, close
// per record) and against SQLite in WAL mode with synchronous=FULL, one
// insert per transaction. Storage latency swings from second to second on a
// shared machine, so one benchmark runs the three in turn in every iteration
// and reports each one's mean time and the ratios (higher is better for us):
//   direct_over_journal = direct time / journal time   (aim >= 0.9)
//   sqlite_over_journal = SQLite time / journal time

#include <tessera/basicFileOpsJournal.h>
#include <tessera/system/system.h>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

using namespace Tessera;
using namespace Tessera::Service;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kRecord = 100;  // payload bytes of every record

std::string ScratchDir() {
    std::string temp;
    System::GetSystemFactory()->GetTempDir(temp);
    const std::string dir = temp + "/tessera-journal-bench-" + std::to_string(::getpid());
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

void DirectAppend(const std::string& path, const std::string& record) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) std::abort();
    if (::write(fd, record.data(), record.size()) != static_cast<ssize_t>(record.size())) {
        std::abort();
    }
    if (::fdatasync(fd) != 0) std::abort();
    ::close(fd);
}

void DurableAppend_Interleaved(benchmark::State& state) {
    const std::string dir = ScratchDir();
    Ref<Logger> quiet(new Logger("bench", Logger::MASK_NONE));
    if (!BasicFileOpsJournal::Init(dir + "/journals", quiet)) std::abort();
    Ref<BasicFileOpsJournal> journal(new BasicFileOpsJournal(quiet, 1, nullptr, 0));
    // A string field entry of 100 bytes: code 4, time 8, name 4 + 2, value 4 + 77 + 1.
    const std::string value(77, 'v');

    // The direct loop writes the same framing: a length word and 100 bytes.
    std::string direct(4 + kRecord, 'd');
    direct[0] = static_cast<char>(kRecord);
    direct[1] = direct[2] = direct[3] = 0;
    const std::string directPath = dir + "/direct";
    DirectAppend(directPath, direct);

    sqlite3* db = nullptr;
    if (sqlite3_open((dir + "/peer.db").c_str(), &db) != SQLITE_OK) std::abort();
    sqlite3_exec(db,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                 "CREATE TABLE t(v BLOB);",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO t(v) VALUES(?)", -1, &insert, nullptr);
    const std::string blob(kRecord, 's');

    double journalNs = 0, directNs = 0, sqliteNs = 0;
    int turn = 0;
    for (auto _ : state) {
        for (int k = 0; k < 3; ++k) {
            const int mode = (turn + k) % 3;
            const Clock::time_point start = Clock::now();
            if (mode == 0) {
                journal->AddStringFieldEntry("v", value);
            } else if (mode == 1) {
                DirectAppend(directPath, direct);
            } else {
                sqlite3_bind_blob(insert, 1, blob.data(), static_cast<int>(blob.size()),
                                  SQLITE_STATIC);
                if (sqlite3_step(insert) != SQLITE_DONE) std::abort();
                sqlite3_reset(insert);
            }
            const double ns =
                std::chrono::duration<double, std::nano>(Clock::now() - start).count();
            (mode == 0 ? journalNs : mode == 1 ? directNs : sqliteNs) += ns;
        }
        ++turn;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["journal_us"] = journalNs / n / 1000;
    state.counters["direct_us"] = directNs / n / 1000;
    state.counters["sqlite_us"] = sqliteNs / n / 1000;
    state.counters["direct_over_journal"] = directNs / journalNs;
    state.counters["sqlite_over_journal"] = sqliteNs / journalNs;

    sqlite3_finalize(insert);
    sqlite3_close(db);
    journal->Finish(true);
    journal = nullptr;
    BasicFileOpsJournal::Exit();
    std::filesystem::remove_all(dir);
}

}  // namespace

BENCHMARK(DurableAppend_Interleaved)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(3);
