// Journal files and records: whatever the bytes, reading never crashes or
// reads past a record, the records found are those the file's length words
// delimit, and every record that turns into a header or entry writes back to
// something that reads back the same.
//
// The first byte picks what the rest is: 0 a whole journal file, 1 one entry
// record, 2 one header record. Records longer than their fields are a broken
// invariant that the deserialisers assert on, so records go through
// RecordToEntryChecked and CheckRecordFit, as recovery's do.

#include "fuzz/fuzzCheck.h"

#include <tessera/basicFileOpsJournal.h>
#include <tessera/exception.h>

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

using namespace Tessera;
using namespace Tessera::Service;

namespace {

Ref<Logger> Quiet() {
    static Ref<Logger> logger(new Logger("fuzz", Logger::MASK_NONE));
    return logger;
}

const JrnlEntryCreatorMap& Table() {
    static const JrnlEntryCreatorMap table = [] {
        JrnlEntryCreatorMap t;
        BaseJournal::BaseJrnlRegisterEntryCreators(t);
        BasicFileOpsJournal::JrnlRegisterEntryCreators(t);
        return t;
    }();
    return table;
}

std::string Serialized(const BaseJrnlEntry& e) {
    Ref<StringWriter> w;
    CreateStringWriter(w);
    const std::int32_t code = e.GetOpCode();
    w->Write(reinterpret_cast<const char*>(&code), 4);
    const int n = e.Serialize(w.Get());
    FUZZ_CHECK(static_cast<std::size_t>(n) + 4 == w->GetString().size());
    return w->TakeString();
}

void Entry(const char* data, std::size_t len) {
    if (len == 0) return;
    const PersistenceRecord record(data, static_cast<std::int64_t>(len));
    Ref<BaseJrnlEntry> entry;
    try {
        BasicFileOpsJournal::RecordToEntryChecked(&Table(), Quiet(), record, entry);
    } catch (const JrnlException&) {
        return;
    }
    FUZZ_CHECK(!entry.IsNull());
    std::string bytes;
    try {
        bytes = Serialized(*entry);
    } catch (const JrnlException& e) {
        FUZZ_CHECK(std::string(e.what()) == "Serializing Invalid Journal Entry");
        return;
    }
    // Read in the current layout (4 bytes longer when widened).
    FUZZ_CHECK(bytes.size() == len || bytes.size() == len + 4);
    const PersistenceRecord again(bytes.data(), static_cast<std::int64_t>(bytes.size()));
    Ref<BaseJrnlEntry> back;
    BaseJournal::PersistenceRecordToEntry(&Table(), Quiet(), again, back);
    FUZZ_CHECK(back->GetOpCode() == entry->GetOpCode());
    FUZZ_CHECK(back->GetTimestamp() == entry->GetTimestamp());
    FUZZ_CHECK(back->Describe() == entry->Describe());
}

void Header(const char* data, std::size_t len) {
    if (len == 0 || !BasicFileOpsJournal::CheckRecordFit(data, len, true).empty()) return;
    JrnlHeader h;
    try {
        FUZZ_CHECK(h.Deserialize(data, len) == static_cast<int>(len));
    } catch (const JrnlException&) {
        return;
    }
    Ref<StringWriter> w;
    CreateStringWriter(w);
    try {
        h.Serialize(w.Get());
    } catch (const JrnlException&) {
        FUZZ_CHECK(h.GetJournalId().empty());
        return;
    }
    // The id stops at its first zero byte only when it has one inside.
    if (h.GetJournalId().find('\0') == std::string::npos) {
        FUZZ_CHECK(w->GetString() == std::string(data, len));
    }
}

void File(const char* data, std::size_t len) {
    // In memory where the machine has a file system there: on a disk, rewriting
    // the file for every input kept the target waiting for write-back.
    static const std::string path =
        std::string(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") +
        "/tessera-fuzz-journal-" + std::to_string(::getpid());
    std::FILE* f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    std::fwrite(data, 1, len, f);
    std::fclose(f);

    JrnlFileScan scan;
    JrnlFilePersistenceProvider::ScanFile(path, scan);
    FUZZ_CHECK(scan.fileSize == static_cast<std::int64_t>(len));
    FUZZ_CHECK(scan.validLength <= scan.fileSize);
    PersistenceRecordList records;
    Ref<JrnlFilePersistenceProvider> provider(
        new JrnlFilePersistenceProvider(path, Quiet(), false));
    try {
        provider->ReadAllRecords(records);
    } catch (const JrnlException&) {
        records.clear();
    }
    if (scan.isJournal && records.size() == scan.recordOffsets.size()) {
        std::size_t i = 0;
        for (const PersistenceRecord& r : records) {
            const std::int64_t at = scan.recordOffsets[i++] + 4;
            FUZZ_CHECK(at + r.GetDataLen() <= scan.validLength);
            FUZZ_CHECK(std::string(r.GetData(), static_cast<std::size_t>(r.GetDataLen())) ==
                       std::string(data + at, static_cast<std::size_t>(r.GetDataLen())));
        }
    }
    JrnlFileState state;
    BasicFileOpsJournal::ReadJournalFile(path, Quiet(), state);
    FUZZ_CHECK(state.tornBytes == (scan.isJournal ? scan.fileSize - scan.validLength : 0) ||
               !state.readable);
    for (const JrnlStepToUndo& step : state.toUndo) {
        FUZZ_CHECK(step.index >= 0 && static_cast<std::size_t>(step.index) < state.entries.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) return 0;
    const char* data = reinterpret_cast<const char*>(bytes) + 1;
    const std::size_t len = size - 1;
    switch (bytes[0] % 3) {
    case 0: File(data, len); break;
    case 1: Entry(data, len); break;
    default: Header(data, len); break;
    }
    return 0;
}
