// Journal headers and entries: their bytes, the checks that refuse short or
// corrupt records, the earlier 4-byte timestamp layout, and creator tables.

#include <tessera/basicFileOpsJournal.h>

#include "tests/journal/journalTestSupport.h"

#include <gtest/gtest.h>

using namespace Tessera;
using namespace Tessera::Service;

namespace {

class JournalEntryTest : public JournalTest {
protected:
    void SetUp() override {
        JournalTest::SetUp();
        BaseJournal::BaseJrnlRegisterEntryCreators(_table);
        BasicFileOpsJournal::JrnlRegisterEntryCreators(_table);
    }
    static std::string Bytes(const BaseJrnlEntry& e) {
        Ref<StringWriter> w;
        CreateStringWriter(w);
        const std::int32_t code = e.GetOpCode();
        w->Write(reinterpret_cast<const char*>(&code), 4);
        const int n = e.Serialize(w.Get());
        EXPECT_EQ(n + 4, static_cast<int>(w->GetString().size()));
        return w->TakeString();
    }
    static std::string Bytes(const JrnlHeader& h) {
        Ref<StringWriter> w;
        CreateStringWriter(w);
        const int n = h.Serialize(w.Get());
        EXPECT_EQ(n, static_cast<int>(w->GetString().size()));
        return w->TakeString();
    }
    Ref<BaseJrnlEntry> Entry(const std::string& record, bool compat = false) {
        Ref<BaseJrnlEntry> out;
        const PersistenceRecord r(record.data(), static_cast<std::int64_t>(record.size()));
        if (compat) {
            BaseJournal::PersistenceRecordToEntryCompat(&_table, _logger, r, out);
        } else {
            BaseJournal::PersistenceRecordToEntry(&_table, _logger, r, out);
        }
        return out;
    }
    std::string EntryError(const std::string& record, bool compat = false) {
        return Raised([&] { Entry(record, compat); });
    }
    static std::string HeaderError(const std::string& record) {
        return Raised([&] { JrnlHeader().Deserialize(record.data(), record.size()); });
    }
    JrnlEntryCreatorMap _table;
};

const char* const kTooSmall = "Buffer is too small to have a full record. Journal might be corrupt";

// ---- the header ----

TEST_F(JournalEntryTest, HeaderBytesAndTheirChecks) {
    const JrnlHeader h(7, "cd", 2, "1700000000.0");
    const std::string bytes = Bytes(h);
    EXPECT_EQ(bytes, Le32(2) + Le32(0xFAB5D00D) + Le32(7) + Le32(2) + "cd" + Str("1700000000.0"));
    JrnlHeader back;
    EXPECT_EQ(back.Deserialize(bytes.data(), bytes.size()), static_cast<int>(bytes.size()));
    EXPECT_EQ(back.GetJournalType(), 7u);
    EXPECT_EQ(back.GetClientData(), "cd");
    EXPECT_EQ(back.GetJournalId(), "1700000000.0");
    EXPECT_TRUE(back.Agrees(h));
    back.SetMagic(1);
    EXPECT_FALSE(back.Agrees(h));

    // The smallest header: no client data and a length word of 1 (the zero
    // byte alone) is 21 bytes; it reads, but its empty id makes it invalid.
    const std::string smallest = Le32(2) + Le32(0xFAB5D00D) + Le32(0) + Le32(0) + Le32(1) + '\0';
    ASSERT_EQ(smallest.size(), 21u);
    JrnlHeader empty;
    EXPECT_EQ(empty.Deserialize(smallest.data(), smallest.size()), 21);
    EXPECT_FALSE(empty.IsValid());
    EXPECT_EQ(HeaderError(smallest.substr(0, 20)), kTooSmall);
    EXPECT_EQ(HeaderError(bytes.substr(0, bytes.size() - 1)), kTooSmall);
    EXPECT_EQ(HeaderError(bytes.substr(0, 17)), kTooSmall); // inside the client data
    std::string unterminated = bytes;
    unterminated.back() = 'x';
    EXPECT_EQ(HeaderError(unterminated),
              "Unexpected character found in the header. Perhaps corrupt journal");
    // A client-data length past the end, even one that would wrap 32 bits.
    std::string huge = bytes;
    huge.replace(12, 4, Le32(0xFFFFFFF0u));
    EXPECT_EQ(HeaderError(huge), kTooSmall);
    std::string longId = bytes;
    longId.replace(18, 4, Le32(0xFFFFFFFFu));
    EXPECT_EQ(HeaderError(longId), kTooSmall);

    EXPECT_EQ(Raised([] { Bytes(JrnlHeader(1, nullptr, 0, "")); }), "Serializing Invalid Header");
}

TEST_F(JournalEntryTest, HeaderWithTrailingBytesOrNoIdLengthIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string bytes = Bytes(JrnlHeader(7, nullptr, 0, "id"));
    EXPECT_DEATH(HeaderError(bytes + "x"), "skip == len");
    const std::string noId = Le32(2) + Le32(0xFAB5D00D) + Le32(0) + Le32(0) + Le32(0) + "ab";
    EXPECT_DEATH(HeaderError(noId), "strLen > 0");
}

// ---- entries ----

TEST_F(JournalEntryTest, EntryBytesSizesAndPrintedTexts) {
    JrnlEndEntry end(_logger, true);
    end.SetTimestamp(0x0102030405060708LL);
    EXPECT_EQ(Bytes(end), Le32(2) + Le64(0x0102030405060708ULL) + std::string(1, '\x01'));
    EXPECT_EQ(Bytes(JrnlBeginEntry(_logger)).size(), 12u);
    EXPECT_EQ(Bytes(JrnlUndoFormerEntry(_logger, 5)).size(), 16u);

    JrnlFileEntry disk(_logger, false, JRNL_FILE_DISK, "/d/x.vmdk");
    disk.SetTimestamp(9);
    EXPECT_EQ(Bytes(disk), Le32(5) + Le64(9) + std::string(1, '\0') + Le32(2) + Str("/d/x.vmdk"));
    JrnlLongFieldEntry big(_logger, "n", -2);
    big.SetTimestamp(9);
    EXPECT_EQ(Bytes(big), Le32(8) + Le64(9) + Str("n") + Le64(static_cast<std::uint64_t>(-2)));

    // Each comes back as it was written.
    const std::vector<Ref<BaseJrnlEntry>> all = {
        new JrnlBeginEntry(_logger),
        new JrnlEndEntry(_logger, false),
        new JrnlUndoFormerEntry(_logger, 42),
        new JrnlDirEntry(_logger, true, "/a/b"),
        new JrnlFileEntry(_logger, true, JRNL_FILE_REGULAR, "/a/b/c"),
        new JrnlIntFieldEntry(_logger, "count", 4000000000u),
        new JrnlStringFieldEntry(_logger, "owner", "svc"),
        new JrnlLongFieldEntry(_logger, "size", -5),
    };
    const std::vector<std::string> texts = {
        "\t\tPrinting JrnlBeginEntry",
        "\t\tPrinting JrnlEndEntry: success: false",
        "\t\tPrinting JrnlUndoFormerEntry: 42",
        "\t\tPrinting JrnlDirEntry: dirpath: /a/b, isCreate: true",
        "\t\tPrinting JrnlFileEntry: filetype: 1, filepath: /a/b/c, isCreate: true",
        "\t\tPrinting JrnlFieldEntry: fieldname: count, value: 4000000000",
        "\t\tPrinting JrnlFieldEntry: fieldname: owner, value: svc",
        "\t\tPrinting JrnlFieldEntry: fieldname: size, value: -5",
    };
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i]->SetTimestamp(1000 + static_cast<std::int64_t>(i));
        const Ref<BaseJrnlEntry> back = Entry(Bytes(*all[i]));
        EXPECT_EQ(back->GetOpCode(), all[i]->GetOpCode());
        EXPECT_EQ(back->GetTimestamp(), 1000 + static_cast<std::int64_t>(i));
        EXPECT_EQ(back->Describe(), texts[i]);
        back->Print();
        EXPECT_TRUE(Logged(texts[i]));
    }

    // Empty paths and names refuse to serialise.
    for (const Ref<BaseJrnlEntry>& e :
         std::vector<Ref<BaseJrnlEntry>>{new JrnlDirEntry(_logger, true, ""),
                                         new JrnlFileEntry(_logger, true, JRNL_FILE_DISK, ""),
                                         new JrnlStringFieldEntry(_logger, "", "v")}) {
        EXPECT_EQ(Raised([&] { Bytes(*e); }), "Serializing Invalid Journal Entry");
    }
}

TEST_F(JournalEntryTest, ShortAndCorruptRecordsAreRefusedWithTheirTexts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EQ(EntryError("abc"), "Buffer size is too small to have an entry");
    EXPECT_EQ(EntryError(Le32(99) + Le64(0)),
              "Unknown operation type is encountered. Cannot create entry");
    EXPECT_EQ(EntryError(Le32(2) + Le64(0)), "Buffer is too small to have a valid entry");
    EXPECT_EQ(EntryError(Le32(1) + "1234567"), "Buffer is too small to have a valid entry");
    const std::string dir = Bytes(JrnlDirEntry(_logger, true, "/abc"));
    EXPECT_EQ(EntryError(dir.substr(0, dir.size() - 1)),
              "Buffer is too small for string deserialization");
    std::string noZero = dir;
    noZero.back() = 'x';
    EXPECT_EQ(EntryError(noZero), "Record is corrupt -- journal might be corrupt");
    EXPECT_EQ(EntryError(Le32(4) + Le64(0) + '\x01' + Le32(0)),
              "Record is corrupt -- journal might be corrupt");
    const std::string field = Bytes(JrnlLongFieldEntry(_logger, "n", 1));
    EXPECT_EQ(EntryError(field.substr(0, field.size() - 1)),
              "Buffer is too small for deserialization");
    EXPECT_DEATH(Entry(Bytes(JrnlEndEntry(_logger, true)) + "x"), "len == size");
    EXPECT_DEATH(Entry(dir + "x"), "skip == len");
}

TEST_F(JournalEntryTest, OldFourByteTimestampsAreWidenedByZeroExtension) {
    // An end entry of the earlier layout: code, 32-bit time, flag.
    const Ref<BaseJrnlEntry> end = Entry(Le32(2) + Le32(0xFFFFFFFFu) + '\x01', true);
    EXPECT_EQ(end->GetTimestamp(), 4294967295LL);
    EXPECT_TRUE(static_cast<JrnlEndEntry*>(end.Get())->GetSuccess());
    EXPECT_TRUE(Logged("Compensating for a change in timestamp size."));
    const Ref<BaseJrnlEntry> dir = Entry(Le32(4) + Le32(77) + '\x00' + Str("/x"), true);
    EXPECT_EQ(dir->GetTimestamp(), 77);
    EXPECT_EQ(static_cast<JrnlDirEntry*>(dir.Get())->GetPath(), "/x");
    // Current records are never touched.
    TakeLog();
    EXPECT_EQ(Entry(Bytes(JrnlUndoFormerEntry(_logger, 3)), true)->GetOpCode(), 3);
    EXPECT_FALSE(Logged("Compensating"));
    EXPECT_EQ(EntryError("abcdefg", true), "Record is too small to contain journal entry");
    EXPECT_EQ(EntryError(Le32(99) + Le64(0), true),
              "Unknown operation type is encountered. Cannot create entry");
}

TEST_F(JournalEntryTest, RecordsFromOutsideAreCheckedBeforeTheDeserialisersAssert) {
    auto checked = [&](const std::string& record) {
        Ref<BaseJrnlEntry> out;
        const PersistenceRecord r(record.data(), static_cast<std::int64_t>(record.size()));
        try {
            BasicFileOpsJournal::RecordToEntryChecked(&_table, _logger, r, out);
        } catch (const JrnlException& e) {
            return std::string(e.what());
        }
        return out->Describe();
    };
    const std::string dir = Bytes(JrnlDirEntry(_logger, true, "/abc"));
    EXPECT_EQ(BasicFileOpsJournal::CheckRecordFit(dir.data(), dir.size(), false), "");
    EXPECT_EQ(BasicFileOpsJournal::CheckRecordFit((dir + "x").data(), dir.size() + 1, false),
              "record longer than its fields");
    EXPECT_EQ(checked(dir), "\t\tPrinting JrnlDirEntry: dirpath: /abc, isCreate: true");
    EXPECT_EQ(checked(Bytes(JrnlEndEntry(_logger, true)) + "xyz"),
              "Record is corrupt -- journal might be corrupt");
    // A record whose string is bad in the current layout and that reads as an
    // overlong one when widened (found by the fuzz target).
    std::string file = Bytes(JrnlFileEntry(_logger, false, JRNL_FILE_DISK, "/dir/disk"));
    file.back() = '\x01';
    EXPECT_EQ(checked(file), "Record is corrupt -- journal might be corrupt");
    EXPECT_EQ(checked(Le32(2) + Le32(0xFFFFFFFFu) + '\x01'),
              "\t\tPrinting JrnlEndEntry: success: true");
    const std::string header = Bytes(JrnlHeader(1, nullptr, 0, "id"));
    EXPECT_EQ(BasicFileOpsJournal::CheckRecordFit(header.data(), header.size(), true), "");
    EXPECT_EQ(BasicFileOpsJournal::CheckRecordFit((header + "x").data(), header.size() + 1, true),
              "record longer than its fields");
}

TEST_F(JournalEntryTest, CreatorTablesRefuseDoublesAndAbsentCodes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EQ(
        Raised([&] { BaseJournal::RegisterEntryCreator(_table, 3, &JrnlBeginEntry::Create); }),
        "An object creator has already been registered for this operation (OP: 3 SIZE: 8");
    BasicFileOpsJournal::JrnlUnregisterEntryCreators(_table);
    BaseJournal::BaseJrnlUnregisterEntryCreators(_table);
    EXPECT_TRUE(_table.empty());
    EXPECT_EQ(Raised([&] { BaseJournal::UnregisterEntryCreator(_table, 1); }),
              "Trying to unregister an unexisting entry creator");
    EXPECT_DEATH(BaseJournal::RegisterEntryCreator(_table, 1, nullptr), "f != 0");
}

} // namespace
