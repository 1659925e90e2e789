// The crash test's child loop and the parent's checks (see journalCrash.h).

#include <tessera/system/system.h>
#include "tests/journal/journalCrash.h"

#include <tessera/basicFileOpsJournal.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace Tessera;
using namespace Tessera::Service;

namespace {

// Entry i of the child's journal: directory and file steps, a value, and
// every fourth entry the undo of the file step two before it.
enum class Kind { DIR, FILE, VALUE, UNDO };
Kind KindOf(int i) {
    return static_cast<Kind>(i % 4);
}
std::string PathFor(int i) {
    return "/crash/" + std::to_string(i) + "/" +
           std::string(static_cast<std::size_t>(i % 7) * 9, 'p');
}

int Append(BasicFileOpsJournal& j, int i) {
    switch (KindOf(i)) {
        case Kind::DIR:
            return j.CreateDirectory(PathFor(i));
        case Kind::FILE:
            return j.CreateRegularFile(PathFor(i));
        case Kind::VALUE:
            return j.AddLongFieldEntry("n", i);
        case Kind::UNDO:
            break;
    }
    return j.UndoEntry(i - 2);
}

std::string Mismatch(int i, const std::string& what) {
    return "entry " + std::to_string(i) + ": " + what;
}

// "" when `entry` is entry i of the child's journal.
std::string CheckEntry(int i, const BaseJrnlEntry& entry) {
    switch (KindOf(i)) {
        case Kind::DIR: {
            const JrnlDirEntry* d = dynamic_cast<const JrnlDirEntry*>(&entry);
            if (d == nullptr || !d->IsCreate() || d->GetPath() != PathFor(i)) {
                return Mismatch(i, entry.Describe());
            }
            return std::string();
        }
        case Kind::FILE: {
            const JrnlFileEntry* f = dynamic_cast<const JrnlFileEntry*>(&entry);
            if (f == nullptr || f->GetPath() != PathFor(i) ||
                f->GetFileType() != JRNL_FILE_REGULAR) {
                return Mismatch(i, entry.Describe());
            }
            return std::string();
        }
        case Kind::VALUE: {
            const JrnlLongFieldEntry* v = dynamic_cast<const JrnlLongFieldEntry*>(&entry);
            if (v == nullptr || v->GetValue() != i) return Mismatch(i, entry.Describe());
            return std::string();
        }
        case Kind::UNDO:
            break;
    }
    const JrnlUndoFormerEntry* u = dynamic_cast<const JrnlUndoFormerEntry*>(&entry);
    if (u == nullptr || u->GetUndoneEntry() != i - 2) return Mismatch(i, entry.Describe());
    return std::string();
}

// The steps recovery should list after n entries, newest first.
std::vector<int> StepsToUndo(int n) {
    std::vector<int> steps;
    for (int i = n - 1; i >= 0; --i) {
        if (KindOf(i) == Kind::DIR) steps.push_back(i);
        if (KindOf(i) == Kind::FILE && i + 2 >= n) steps.push_back(i);  // not undone yet
    }
    return steps;
}

Ref<Logger> sLogger;

}  // namespace

TEST(JournalCrashChild, AppendsUntilKilled) {
    const char* dir = std::getenv(JournalCrash::kMarker);
    if (dir == nullptr) GTEST_SKIP() << "run by the crash test only";
    ASSERT_TRUE(BasicFileOpsJournal::Init(dir, nullptr));
    Ref<BasicFileOpsJournal> j(new BasicFileOpsJournal(nullptr, 3, "crash", 5));
    Ref<JrnlPersistenceProvider> p;
    j->GetProvider(p);
    std::printf("@J %s\n", p->GetJournalID().c_str());
    std::fflush(stdout);
    for (int i = 0; i < 100000; ++i) {
        const int index = Append(*j, i);
        std::printf("@A %d\n", index);
        std::fflush(stdout);
    }
}

namespace JournalCrash {

void BeginParent(const std::string& dir) {
    sLogger = new Logger("crash", Logger::MASK_WARNING);
    ASSERT_TRUE(BasicFileOpsJournal::Init(dir, sLogger));
}

void EndParent() {
    BasicFileOpsJournal::Exit();
    sLogger = nullptr;
}

std::string CheckAfterKill(const std::string& journalPath, int acked, bool& torn) {
    JrnlFileScan scan;
    JrnlFilePersistenceProvider::ScanFile(journalPath, scan);
    if (!scan.isJournal || scan.recordOffsets.empty()) return "no journal header";
    const std::int64_t tail = scan.fileSize - scan.validLength;
    torn = tail > 0;
    if (tail >= 4) {
        // What is left must be the start of one record of this journal.
        Ref<System::FileHandle> f;
        System::GetSystemFactory()->GetFileHandle(journalPath, System::FileHandle::OPEN_READ, f);
        f->Seek(scan.validLength, System::FileHandle::FROM_BEGIN);
        unsigned char word[4];
        f->Read(word, 4);
        const std::int64_t len = word[0] | word[1] << 8 | word[2] << 16 | word[3] << 24;
        if (len > 200 || tail - 4 >= len)
            return "more than one torn record: " + std::to_string(tail);
    }

    JrnlFileState state;
    BasicFileOpsJournal::ReadJournalFile(journalPath, sLogger, state);
    if (!state.readable) return "unreadable: " + state.failure;
    const int n = static_cast<int>(state.entries.size());
    if (n < acked || n > acked + 1) {
        return "acknowledged " + std::to_string(acked) + ", found " + std::to_string(n);
    }
    int i = 0;
    for (const Ref<BaseJrnlEntry>& e : state.entries) {
        const std::string bad = CheckEntry(i++, *e);
        if (!bad.empty()) return bad;
    }
    if (state.tornBytes != tail) return "torn bytes disagree";
    const std::vector<int> expected = StepsToUndo(n);
    std::vector<int> listed;
    for (const JrnlStepToUndo& s : state.toUndo) listed.push_back(s.index);
    if (listed != expected || !state.IsUnfinished()) return "recovery listed the wrong steps";

    // Recovery: reopen (cutting the torn tail), record each undo, finish.
    Ref<BasicFileOpsJournal> j(new BasicFileOpsJournal(sLogger, journalPath));
    for (int index : listed) {
        if (j->UndoEntry(index) != j->GetEntryCount() - 1) return "undo got the wrong index";
    }
    j->Finish(true);
    JrnlFileState after;
    BasicFileOpsJournal::ReadJournalFile(journalPath, sLogger, after);
    if (!after.readable || after.tornBytes != 0 || after.IsUnfinished() || !after.toUndo.empty() ||
        after.entries.size() != static_cast<std::size_t>(n) + listed.size() + 1) {
        return "after recovery: " + after.failure;
    }
    JrnlEntryList::const_iterator it = after.entries.begin();
    std::advance(it, n);
    for (int index : listed) {
        const JrnlUndoFormerEntry* u = dynamic_cast<const JrnlUndoFormerEntry*>(it->Get());
        if (u == nullptr || u->GetUndoneEntry() != index) return "undo entry read back wrong";
        ++it;
    }
    // Removed without syncing the directory: nothing to keep.
    std::remove(journalPath.c_str());
    return std::string();
}

}  // namespace JournalCrash
