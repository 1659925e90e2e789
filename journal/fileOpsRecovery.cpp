// Reading the file-operations journals back for recovery: a file's header,
// its entries (each record checked against the length of its fields, and
// records of an older, shorter timestamp widened) and the steps left to undo;
// and the listing of every unfinished journal in the directory.

#include <tessera/basicFileOpsJournal.h>

#include "journal/fileOpsInternal.h"

#include <cstring>
#include <set>

namespace Tessera {
namespace Service {

namespace {

constexpr std::uint64_t kShort = ~std::uint64_t(0);

std::uint64_t Word(const char* data, std::size_t len, std::uint64_t at) {
    if (at + 4 > len) return kShort;
    std::uint32_t v;
    std::memcpy(&v, data + at, 4);
    return v;
}

// The length an entry record's fields add up to, reading only the length
// words that lie inside it; kShort when they run past its end.
std::uint64_t EntryLength(const char* data, std::size_t len) {
    const std::uint64_t code = Word(data, len, 0);
    std::uint64_t at = 12;
    auto string = [&] {
        const std::uint64_t n = Word(data, len, at);
        at = n == kShort ? kShort : at + 4 + n;
    };
    switch (code) {
    case 1: return 12;
    case 2: return 13;
    case 3: return 16;
    case 4:
        at += 1;
        string();
        return at;
    case 5:
        at += 5;
        string();
        return at;
    case 6: string(); return at == kShort ? kShort : at + 4;
    case 7:
        string();
        if (at != kShort) string();
        return at;
    case 8: string(); return at == kShort ? kShort : at + 8;
    default: return kShort;
    }
}

const JrnlEntryCreatorMap& FullCreatorTable() {
    static const JrnlEntryCreatorMap table = [] {
        JrnlEntryCreatorMap t;
        BaseJournal::BaseJrnlRegisterEntryCreators(t);
        BasicFileOpsJournal::JrnlRegisterEntryCreators(t);
        return t;
    }();
    return table;
}

} // namespace

std::string BasicFileOpsJournal::CheckRecordFit(const char* data, std::size_t len, bool header) {
    const char* const overlong = "record longer than its fields";
    if (header) {
        const std::uint64_t l = Word(data, len, 12);
        if (l == kShort) return std::string();
        const std::uint64_t s = Word(data, len, 16 + l);
        if (s == kShort) return std::string();
        if (s == 0) return "header with an id length of 0";
        return 20 + l + s < len ? overlong : std::string();
    }
    if (len < 4) return std::string();
    const std::uint64_t need = EntryLength(data, len);
    return need != kShort && need < len ? overlong : std::string();
}

void BasicFileOpsJournal::RecordToEntryChecked(const JrnlEntryCreatorMap* cMap,
                                               const Ref<Logger>& logger,
                                               const PersistenceRecord& record,
                                               Ref<BaseJrnlEntry>& out) {
    const char* const corrupt = "Record is corrupt -- journal might be corrupt";
    const std::size_t len = static_cast<std::size_t>(record.GetDataLen());
    if (CheckRecordFit(record.GetData(), len, false).empty()) {
        try {
            PersistenceRecordToEntry(cMap, logger, record, out);
            return;
        } catch (const JrnlException&) {}
    }
    if (len < 8) throw JrnlException("Record is too small to contain journal entry");
    std::string widened(len + 4, '\0');
    std::memcpy(&widened[0], record.GetData(), 8);
    std::memcpy(&widened[12], record.GetData() + 8, len - 8);
    if (!CheckRecordFit(widened.data(), widened.size(), false).empty())
        throw JrnlException(corrupt);
    TESSERA_LOG(logger.IsNull() ? DefaultLogger() : logger.Get(), Logger::LOG_INFO,
                "Compensating for a change in timestamp size.");
    PersistenceRecordToEntry(
        cMap, logger, PersistenceRecord(widened.data(), static_cast<std::int64_t>(widened.size())),
        out);
}

void BasicFileOpsJournal::ReadJournalFile(const std::string& path, const Ref<Logger>& logger,
                                          JrnlFileState& out) {
    out = JrnlFileState();
    out.path = path;
    Ref<Logger> log = logger;
    if (log.IsNull()) GetDefaultLogger(log);
    try {
        JrnlFileScan scan;
        JrnlFilePersistenceProvider::ScanFile(path, scan);
        out.tornBytes = scan.fileSize - scan.validLength;
        Ref<JrnlFilePersistenceProvider> provider(
            new JrnlFilePersistenceProvider(path, log, false));
        PersistenceRecordList records;
        provider->ReadAllRecords(records);
        if (records.empty()) throw JrnlException("Invalid journal file");
        const std::string headerFit =
            CheckRecordFit(records.front().GetData(),
                           static_cast<std::size_t>(records.front().GetDataLen()), true);
        if (!headerFit.empty())
            throw JrnlException("Record is corrupt -- journal might be corrupt");
        PersistenceRecordToHeader(records.front(), out.header);
        if (!out.header.IsValid()) throw JrnlException("Invalid journal file");
        records.pop_front();
        for (const PersistenceRecord& record : records) {
            Ref<BaseJrnlEntry> entry;
            RecordToEntryChecked(&FullCreatorTable(), log, record, entry);
            out.entries.push_back(entry);
        }
    } catch (const Exception& e) {
        TESSERA_LOG(log, Logger::LOG_ERROR, "Journal failure: %1", e.what());
        out.failure = e.what();
        return;
    }
    out.readable = true;
    std::set<EntryInsertionResult> undone;
    std::vector<JrnlStepToUndo> steps;
    EntryInsertionResult index = 0;
    for (const Ref<BaseJrnlEntry>& entry : out.entries) {
        if (const JrnlEndEntry* end = dynamic_cast<const JrnlEndEntry*>(entry.Get())) {
            out.finished = true;
            out.success = end->GetSuccess();
        } else if (const JrnlUndoFormerEntry* undo =
                       dynamic_cast<const JrnlUndoFormerEntry*>(entry.Get())) {
            undone.insert(undo->GetUndoneEntry());
        } else if (dynamic_cast<const JrnlDirEntry*>(entry.Get()) != nullptr ||
                   dynamic_cast<const JrnlFileEntry*>(entry.Get()) != nullptr) {
            steps.push_back(JrnlStepToUndo{index, entry});
        }
        ++index;
    }
    for (std::vector<JrnlStepToUndo>::reverse_iterator it = steps.rbegin(); it != steps.rend();
         ++it) {
        if (undone.count(it->index) == 0) out.toUndo.push_back(*it);
    }
}

void BasicFileOpsJournal::GetUnfinishedJournals(std::vector<JrnlFileState>& out) {
    out.clear();
    const std::string dir = [] {
        std::lock_guard<std::mutex> hold(FileOpsInitLock());
        return _journalDir;
    }();
    if (dir.empty()) throw JrnlException("Journal is not initialized");
    std::vector<std::string> files;
    if (!JrnlFilePersistenceProvider::GetJournalFiles(dir, files)) {
        throw JrnlException("Cannot list the journal directory " + dir);
    }
    for (const std::string& path : files) {
        JrnlFileState state;
        ReadJournalFile(path, _defaultLogger, state);
        if (!state.readable || state.IsUnfinished()) out.push_back(std::move(state));
    }
}

} // namespace Service
} // namespace Tessera
