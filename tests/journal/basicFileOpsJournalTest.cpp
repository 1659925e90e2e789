// The file-operations journal: set-up, ids, steps, reopening with its
// refusals, recovery listings, and appends from many threads.

#include <tessera/basicFileOpsJournal.h>

#include "tests/journal/journalTestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <thread>

using namespace Tessera;
using namespace Tessera::Service;

namespace {

class BasicFileOpsJournalTest : public JournalTest {
protected:
    void SetUp() override {
        JournalTest::SetUp();
        _jdir = PathOf("journals");
        ASSERT_TRUE(BasicFileOpsJournal::Init(_jdir, _logger));
    }
    void TearDown() override {
        BasicFileOpsJournal::Exit();
        JournalTest::TearDown();
    }
    JrnlFileState Read(const std::string& path) {
        JrnlFileState s;
        BasicFileOpsJournal::ReadJournalFile(path, _logger, s);
        return s;
    }
    std::string JournalPath(const Ref<BasicFileOpsJournal>& j) {
        Ref<JrnlPersistenceProvider> p;
        j->GetProvider(p);
        return p->GetJournalID();
    }
    std::string _jdir;
};

// ---- Init and Exit ----

TEST_F(BasicFileOpsJournalTest, InitOncePerDirectory) {
    EXPECT_TRUE(std::filesystem::is_directory(_jdir));
    EXPECT_TRUE(Logged("Init: Succeeded with directory = " + _jdir));
    EXPECT_TRUE(BasicFileOpsJournal::Init(_jdir, _logger));
    EXPECT_EQ(Raised([&] { BasicFileOpsJournal::Init(PathOf("other"), _logger); }),
              "Journaling is already initialized with a different directory");
    EXPECT_TRUE(Logged("Init: Already initialized with directory " + _jdir));

    Ref<BasicFileOpsJournal> open(new BasicFileOpsJournal(_logger, 1, nullptr, 0));
    EXPECT_TRUE(BasicFileOpsJournal::Exit());
    EXPECT_TRUE(Logged("[JrnlEntry]: There are 1 unfreed journals. There might be a leak"));
    EXPECT_TRUE(Logged("Exit: Succeeded"));
    EXPECT_EQ(Raised([&] {
                  Ref<BasicFileOpsJournal> j(new BasicFileOpsJournal(_logger, 1, nullptr, 0));
              }),
              "Journal is not initialized");
    EXPECT_EQ(Raised([&] {
                  Ref<BasicFileOpsJournal> j(new BasicFileOpsJournal(_logger, JournalPath(open)));
              }),
              "Journal is not initialized");
    open = nullptr;

    // A file where the directory should be.
    PutFile("plain", "x");
    EXPECT_FALSE(BasicFileOpsJournal::Init(PathOf("plain") + "/journals", _logger));
    EXPECT_TRUE(Logged("Init: Could not create directory " + PathOf("plain") + "/journals"));
    ASSERT_TRUE(BasicFileOpsJournal::Init(_jdir, _logger));
}

// ---- a new journal and its steps ----

TEST_F(BasicFileOpsJournalTest, IdsHeaderAndStepsOnDisk) {
    Ref<BasicFileOpsJournal> a, b;
    for (int attempt = 0; attempt < 5; ++attempt) { // both within one second
        a = new BasicFileOpsJournal(_logger, 9, "client", 6);
        b = new BasicFileOpsJournal(_logger, 9, nullptr, 0);
        if (a->GetJrnlId().substr(0, a->GetJrnlId().find('.')) ==
            b->GetJrnlId().substr(0, b->GetJrnlId().find('.'))) {
            break;
        }
    }
    const std::string ida = a->GetJrnlId(), idb = b->GetJrnlId();
    EXPECT_EQ(std::stoul(idb.substr(idb.find('.') + 1)),
              std::stoul(ida.substr(ida.find('.') + 1)) + 1);
    EXPECT_EQ(JournalPath(a), _jdir + System::GetPathSeparator() + ida);
    // Files already there under the next ids (left by another process) are
    // skipped, never overwritten.
    const std::string seconds = idb.substr(0, idb.find('.'));
    const unsigned next = static_cast<unsigned>(std::stoul(idb.substr(idb.find('.') + 1))) + 1;
    PutFile("journals/" + seconds + "." + std::to_string(next), "left");
    PutFile("journals/" + seconds + "." + std::to_string(next + 1), "left");
    Ref<BasicFileOpsJournal> c(new BasicFileOpsJournal(_logger, 9, nullptr, 0));
    EXPECT_NE(c->GetJrnlId(), seconds + "." + std::to_string(next));
    EXPECT_NE(c->GetJrnlId(), seconds + "." + std::to_string(next + 1));
    EXPECT_EQ(Contents(_jdir + "/" + seconds + "." + std::to_string(next)), "left");
    c->DeleteJournal();
    EXPECT_EQ(a->GetJournalDir(), _jdir);

    // The file: magic, then the header record alone.
    const std::string header = Le32(2) + Le32(0xFAB5D00D) + Le32(9) + Le32(6) + "client" + Str(ida);
    EXPECT_EQ(Contents(JournalPath(a)), "KIVORA.JOURNAL.VER.1.0." + Le32(header.size()) + header);

    EXPECT_EQ(a->CreateDirectory("/d"), 0);
    EXPECT_EQ(a->CreateDiskFile("/d/disk"), 1);
    EXPECT_EQ(a->DeleteRegularFile("/d/old"), 2);
    EXPECT_EQ(a->AddIntFieldEntry("i", 7), 3);
    EXPECT_EQ(a->AddStringFieldEntry("s", "v"), 4);
    EXPECT_EQ(a->AddLongFieldEntry("l", -1), 5);
    EXPECT_EQ(a->DeleteDirectory("/e"), 6);
    EXPECT_EQ(a->CreateRegularFile("/d/f"), 7);
    EXPECT_EQ(a->DeleteDiskFile("/d/g"), 8);

    // A refused step leaves the file and the count alone.
    const std::string before = Contents(JournalPath(a));
    EXPECT_EQ(Raised([&] { a->CreateDirectory(""); }), "Serializing Invalid Journal Entry");
    EXPECT_EQ(Raised([&] { a->AddIntFieldEntry("", 1); }), "Serializing Invalid Journal Entry");
    EXPECT_EQ(Contents(JournalPath(a)), before);
    EXPECT_EQ(a->UndoEntry(8), 9);
    EXPECT_EQ(a->GetEntryCount(), 10);

    JrnlEntryList entries;
    ASSERT_TRUE(a->GetJournalAsList(entries));
    ASSERT_EQ(entries.size(), 10u);
    std::vector<Ref<BaseJrnlEntry>> v(entries.begin(), entries.end());
    const JrnlFileEntry* disk = dynamic_cast<JrnlFileEntry*>(v[1].Get());
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->GetFileType(), static_cast<std::uint32_t>(JRNL_FILE_DISK));
    EXPECT_TRUE(disk->IsCreate());
    const JrnlFileEntry* old = dynamic_cast<JrnlFileEntry*>(v[2].Get());
    ASSERT_NE(old, nullptr);
    EXPECT_EQ(old->GetFileType(), static_cast<std::uint32_t>(JRNL_FILE_REGULAR));
    EXPECT_FALSE(old->IsCreate());
    EXPECT_EQ(dynamic_cast<JrnlUndoFormerEntry*>(v[9].Get())->GetUndoneEntry(), 8);
    JrnlHeader h;
    ASSERT_TRUE(a->GetJournalHeader(h));
    EXPECT_EQ(h.GetClientData(), "client");
    a->PrintJournal();
    EXPECT_TRUE(Logged("\t\tPrinting JrnlFieldEntry: fieldname: l, value: -1"));

    a->Finish(true);
    const JrnlFileState done = Read(JournalPath(a));
    EXPECT_TRUE(done.readable);
    EXPECT_FALSE(done.IsUnfinished());
    a->DeleteJournal();
    EXPECT_FALSE(std::filesystem::exists(JournalPath(a)));
}

// ---- reopening for recovery ----

TEST_F(BasicFileOpsJournalTest, ReopeningRefusesWhatIsNotThisJournal) {
    Ref<BasicFileOpsJournal> j(new BasicFileOpsJournal(_logger, 1, nullptr, 0));
    j->CreateDirectory("/x");
    const std::string path = JournalPath(j);
    auto reopen = [&](const std::string& p) {
        return Raised([&] { Ref<BasicFileOpsJournal> r(new BasicFileOpsJournal(_logger, p)); });
    };
    EXPECT_EQ(reopen(path), "The journal already exists");

    const std::string bytes = Contents(path);
    const std::string magic = "KIVORA.JOURNAL.VER.1.0.";
    PutFile("journals/1.0", magic);
    EXPECT_EQ(reopen(_jdir + "/1.0"), "Invalid journal file");
    PutFile("journals/1.1", magic + Le32(3) + "abc");
    EXPECT_EQ(reopen(_jdir + "/1.1"), "Invalid journal file");
    EXPECT_TRUE(Logged("Journal failure: Buffer is too small to have a full record."));
    PutFile("journals/1.2", "not a journal at all");
    EXPECT_EQ(reopen(_jdir + "/1.2"), "Invalid journal file");
    std::string other = bytes;
    other[23 + 4] = 3; // version 3
    PutFile("journals/1.3", other);
    EXPECT_EQ(reopen(_jdir + "/1.3"), "Unrecognized journal file");
    PutFile("journals/renamed", bytes);
    EXPECT_EQ(reopen(_jdir + "/renamed"),
              "Journal ID mismatch: " + j->GetJrnlId() + " vs. renamed");

    // Once this process lets go of it, it reopens, with its count.
    j = nullptr;
    Ref<BasicFileOpsJournal> again(new BasicFileOpsJournal(_logger, path));
    EXPECT_EQ(again->GetEntryCount(), 1);
    EXPECT_EQ(again->UndoEntry(0), 1);
}

TEST_F(BasicFileOpsJournalTest, RecoveryListsUnfinishedJournalsWithStepsNewestFirst) {
    Ref<BasicFileOpsJournal> good(new BasicFileOpsJournal(_logger, 1, nullptr, 0));
    good->CreateDirectory("/g");
    good->Finish(true);
    Ref<BasicFileOpsJournal> failed(new BasicFileOpsJournal(_logger, 1, nullptr, 0));
    failed->CreateRegularFile("/f/1");
    failed->Finish(false);
    Ref<BasicFileOpsJournal> open(new BasicFileOpsJournal(_logger, 1, nullptr, 0));
    open->CreateDirectory("/o"); // 0
    open->AddStringFieldEntry("who", "me"); // 1: a value, not a step
    open->CreateRegularFile("/o/a"); // 2
    open->CreateDiskFile("/o/b"); // 3
    open->UndoEntry(3); // 4
    const std::string openPath = JournalPath(open);
    open = nullptr; // as after a crash
    // A torn record at the end, as a crash in the middle of an append leaves.
    {
        std::ofstream out(std::filesystem::u8path(openPath), std::ios::binary | std::ios::app);
        out.write("\x40\0\0\0\x05\0\0", 7);
    }
    PutFile("journals/stray.txt", "not a journal");

    std::vector<JrnlFileState> unfinished;
    BasicFileOpsJournal::GetUnfinishedJournals(unfinished);
    ASSERT_EQ(unfinished.size(), 2u);
    const JrnlFileState& f = unfinished[0].path == openPath ? unfinished[1] : unfinished[0];
    const JrnlFileState& o = unfinished[0].path == openPath ? unfinished[0] : unfinished[1];
    EXPECT_TRUE(f.finished);
    EXPECT_FALSE(f.success);
    ASSERT_EQ(f.toUndo.size(), 1u);
    EXPECT_FALSE(o.finished);
    EXPECT_EQ(o.tornBytes, 7);
    ASSERT_EQ(o.toUndo.size(), 2u);
    EXPECT_EQ(o.toUndo[0].index, 2);
    EXPECT_EQ(o.toUndo[1].index, 0);
    EXPECT_EQ(dynamic_cast<JrnlDirEntry*>(o.toUndo[1].entry.Get())->GetPath(), "/o");

    // The service undoes each step and records it, then finishes.
    {
        Ref<BasicFileOpsJournal> r(new BasicFileOpsJournal(_logger, openPath));
        EXPECT_TRUE(Logged("Cut off a torn record of 7 bytes at offset"));
        EXPECT_EQ(r->GetEntryCount(), 5);
        EXPECT_EQ(r->UndoEntry(o.toUndo[0].index), 5);
        EXPECT_EQ(r->UndoEntry(o.toUndo[1].index), 6);
        r->Finish(true);
    }
    const JrnlFileState after = Read(openPath);
    EXPECT_TRUE(after.readable);
    EXPECT_EQ(after.tornBytes, 0);
    EXPECT_EQ(after.entries.size(), 8u);
    EXPECT_TRUE(after.toUndo.empty());
    EXPECT_FALSE(after.IsUnfinished());
    BasicFileOpsJournal::GetUnfinishedJournals(unfinished);
    EXPECT_EQ(unfinished.size(), 1u);
}

// ---- many threads, one journal ----

TEST_F(BasicFileOpsJournalTest, IndicesFollowTheFileOrderUnderConcurrentAppends) {
    Ref<BasicFileOpsJournal> j(new BasicFileOpsJournal(_logger, 1, nullptr, 0));
    constexpr int kThreads = 4, kEach = 25;
    std::mutex lock;
    std::map<int, std::string> byIndex;
    std::vector<std::thread> threads;
    std::vector<Ref<BasicFileOpsJournal>> others(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            others[t] = new BasicFileOpsJournal(_logger, 2, nullptr, 0); // ids stay unique
            for (int i = 0; i < kEach; ++i) {
                const std::string name = std::to_string(t) + "-" + std::to_string(i);
                const int index = j->AddStringFieldEntry(name, name);
                std::lock_guard<std::mutex> hold(lock);
                byIndex[index] = name;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    ASSERT_EQ(byIndex.size(), static_cast<std::size_t>(kThreads * kEach));
    JrnlEntryList entries;
    ASSERT_TRUE(j->GetJournalAsList(entries));
    int index = 0;
    for (const Ref<BaseJrnlEntry>& e : entries) {
        EXPECT_EQ(dynamic_cast<JrnlStringFieldEntry*>(e.Get())->GetFieldName(), byIndex[index++]);
    }
    std::set<std::string> ids;
    for (const Ref<BasicFileOpsJournal>& o : others) ids.insert(o->GetJrnlId());
    EXPECT_EQ(ids.size(), static_cast<std::size_t>(kThreads));
}

} // namespace
