// The journal file: its bytes, files that are not journals, and reading back
// a file cut at every possible point.

#include <tessera/jrnlPersistenceProvider.h>

#include "tests/journal/journalTestSupport.h"

#include <gtest/gtest.h>

using namespace Tessera;
using Service::JrnlException;
using Service::JrnlFilePersistenceProvider;
using Service::JrnlFileScan;
using Service::PersistenceRecordList;

namespace {

const std::string kMagic = "KIVORA.JOURNAL.VER.1.0.";

class JrnlFileTest : public JournalTest {
protected:
    Ref<JrnlFilePersistenceProvider> Provider(const std::string& name, bool create) {
        return new JrnlFilePersistenceProvider(PathOf(name), _logger, create);
    }
};

// ---- the bytes on disk ----

TEST_F(JrnlFileTest, NewFileIsTheMagicAndEachRecordItsLengthThenPayload) {
    Ref<JrnlFilePersistenceProvider> p = Provider("j", true);
    EXPECT_EQ(Contents("j"), kMagic);

    p->WriteRecord("0123456789", 10);
    EXPECT_EQ(Contents("j"), kMagic + std::string("\x0A\0\0\0", 4) + "0123456789");
    p->WriteRecord("ab", 2);
    EXPECT_EQ(Contents("j").size(), 23u + 14u + 6u);

    // Read back by a provider of its own, through rewind and one at a time.
    Ref<JrnlFilePersistenceProvider> r = Provider("j", false);
    EXPECT_EQ(r->GetJournalID(), PathOf("j"));
    r->Rewind();
    char* buffer = nullptr;
    std::uint32_t len = 0;
    bool eof = false;
    ASSERT_TRUE(r->ReadRecord(&buffer, &len, &eof));
    EXPECT_EQ(std::string(buffer, len), "0123456789");
    EXPECT_EQ(buffer[len], '\0');
    delete[] buffer;
    ASSERT_TRUE(r->ReadRecord(&buffer, &len, &eof));
    delete[] buffer;
    EXPECT_FALSE(r->ReadRecord(&buffer, &len, &eof));
    EXPECT_TRUE(eof);
    // A write after reading closes the read handle and appends.
    r->WriteRecord("xyz", 3);
    PersistenceRecordList records;
    r->ReadAllRecords(records);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(std::string(records.back().GetData(), 3), "xyz");

    // An empty journal is an empty list.
    Provider("empty", true);
    PersistenceRecordList none;
    Provider("empty", false)->ReadAllRecords(none);
    EXPECT_TRUE(none.empty());
}

// ---- files that are not journals ----

TEST_F(JrnlFileTest, FilesThatAreNotJournalsAreNeverReadAppendedOrDeleted) {
    std::vector<std::string> bad = {kMagic.substr(0, 22), ""};
    for (std::size_t i = 0; i < kMagic.size(); ++i) {
        std::string m = kMagic + std::string("\x01\0\0\0x", 5);
        m[i] ^= 0x20;
        bad.push_back(m);
    }
    for (const std::string& bytes : bad) {
        PutFile("bad", bytes);
        const std::string path = PathOf("bad");
        EXPECT_EQ(Raised([&] {
                      PersistenceRecordList l;
                      Provider("bad", false)->ReadAllRecords(l);
                  }),
                  "Not a journal file: " + path);
        EXPECT_EQ(Raised([&] { Provider("bad", false)->WriteRecord("abcd", 4); }),
                  "Not a journal file: " + path);
        EXPECT_EQ(Raised([&] { Provider("bad", false)->Rewind(); }), "Not a journal file: " + path);
        Provider("bad", false)->DeleteJournal();
        EXPECT_EQ(Contents("bad"), bytes);
    }
    EXPECT_TRUE(Logged("[QvxJournal]: File " + PathOf("bad") + " is not a valid journal file."));
    EXPECT_TRUE(Logged("[JrnlFilePersistenceProvider] Read only 22 of 23requested bytes.\n"));
    EXPECT_TRUE(Logged("[JrnlFilePersistenceProvider] Got EOF while reading file"));
    EXPECT_TRUE(Logged("[JrnlFilePersistenceProvider::DeleteJournal] Journal File " +
                       PathOf("bad") + " invalid"));

    // The directory walk keeps journals only, and deletes only those.
    Provider("j1", true);
    Provider("j2", true)->WriteRecord("abcd", 4);
    std::filesystem::create_directory(_dir / "sub");
    std::vector<std::string> files;
    ASSERT_TRUE(JrnlFilePersistenceProvider::GetJournalFiles(_dir.u8string(), files));
    EXPECT_EQ(files, (std::vector<std::string>{PathOf("j1"), PathOf("j2")}));
    EXPECT_EQ(JrnlFilePersistenceProvider::DeleteJournalFiles(_dir.u8string()), 2);
    EXPECT_FALSE(std::filesystem::exists(_dir / "j1"));
    EXPECT_TRUE(std::filesystem::exists(_dir / "bad"));
    EXPECT_TRUE(Logged("[JrnlFilePersistenceProvider::DeleteJournal] Journal File " + PathOf("j1") +
                       " deleted"));
}

TEST_F(JrnlFileTest, OpenFailuresNameThePath) {
    const std::string path = PathOf("missing");
    EXPECT_EQ(Raised([&] {
                  PersistenceRecordList l;
                  Provider("missing", false)->ReadAllRecords(l);
              }),
              "Failed to open \"" + path + "\" for read");
    EXPECT_TRUE(Logged("[QvxJournal]: Error opening file " + path + " for read. "));
    const std::string text = Raised([&] { Provider("missing", false)->WriteRecord("a", 1); });
    EXPECT_EQ(text.rfind("Failed to open \"" + path + "\" for write: ", 0), 0u) << text;
    // The file exception's own message follows whole: what failed, the path
    // and the system's text.
    EXPECT_NE(text.find(": Cannot open file '" + path + "': "), std::string::npos) << text;
    EXPECT_TRUE(Logged("Error opening journal file " + path + " for write: "));
    EXPECT_FALSE(std::filesystem::exists(path)); // never created by an append
    EXPECT_NE(Raised([&] { Provider("no/such/dir", true); }), "");
}

// ---- a file cut short at every point ----

TEST_F(JrnlFileTest, EveryTruncationPointReadsBackTheWholeRecordsBeforeIt) {
    Ref<JrnlFilePersistenceProvider> p = Provider("full", true);
    const std::vector<std::string> payloads = {"a", "0123456789", std::string(300, 'z')};
    for (const std::string& s : payloads) {
        p->WriteRecord(s.data(), static_cast<std::uint32_t>(s.size()));
    }
    const std::string full = Contents("full");
    std::vector<std::size_t> ends = {23};
    for (const std::string& s : payloads) ends.push_back(ends.back() + 4 + s.size());
    ASSERT_EQ(ends.back(), full.size());

    for (std::size_t cut = 0; cut <= full.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        PutFile("cut", full.substr(0, cut));
        TakeLog();
        PersistenceRecordList records;
        const std::string raised = Raised([&] { Provider("cut", false)->ReadAllRecords(records); });
        if (cut < 23) {
            EXPECT_EQ(raised, "Not a journal file: " + PathOf("cut"));
            continue;
        }
        ASSERT_EQ(raised, "");
        std::size_t whole = 0;
        while (whole + 1 < ends.size() && ends[whole + 1] <= cut) ++whole;
        ASSERT_EQ(records.size(), whole);
        std::size_t i = 0;
        for (const Service::PersistenceRecord& r : records) {
            EXPECT_EQ(std::string(r.GetData(), static_cast<std::size_t>(r.GetDataLen())),
                      payloads[i++]);
        }
        const std::size_t tail = cut - ends[whole];
        const std::string log = TakeLog();
        if (tail == 0) {
            EXPECT_EQ(log, "");
        } else if (tail < 4) {
            EXPECT_NE(log.find("Read only " + std::to_string(tail) + " of 4requested bytes.\n"),
                      std::string::npos)
                << log;
        } else {
            EXPECT_NE(log.find("Got EOF while reading file"), std::string::npos) << log;
        }

        JrnlFileScan scan;
        JrnlFilePersistenceProvider::ScanFile(PathOf("cut"), scan);
        EXPECT_TRUE(scan.isJournal);
        EXPECT_EQ(scan.recordOffsets.size(), whole);
        EXPECT_EQ(scan.validLength, static_cast<std::int64_t>(ends[whole]));

        // Cutting the torn tail leaves the whole records, and an append
        // after it reads back.
        Ref<JrnlFilePersistenceProvider> again = Provider("cut", false);
        EXPECT_EQ(again->CutTornTail(), static_cast<std::int64_t>(tail));
        again->WriteRecord("new", 3);
        PersistenceRecordList after;
        Provider("cut", false)->ReadAllRecords(after);
        ASSERT_EQ(after.size(), whole + 1);
        EXPECT_EQ(std::string(after.back().GetData(), 3), "new");
    }
}

} // namespace
