// tessera-journal: looks at journal files without changing them.
//
//   tessera-journal list <directory>     each journal with its state
//   tessera-journal dump <file>          the header and every entry
//   tessera-journal check <file>...      torn tails and corrupt records
//
// Exit status: 0 when all is well, 1 when a file is damaged or unfinished
// journals were found by list, 2 on a usage error or a file that cannot be
// read.

#include <tessera/basicFileOpsJournal.h>
#include <tessera/exception.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace Tessera;
using namespace Tessera::Service;

namespace {

// The tool reports what it finds itself; the library's diagnostics are off.
Ref<Logger> sQuiet;

int Usage() {
    std::fputs(
        "usage: tessera-journal list <directory>\n"
        "       tessera-journal dump <file>\n"
        "       tessera-journal check <file>...\n",
        stderr);
    return 2;
}

const char* StateOf(const JrnlFileState& s) {
    if (!s.readable) return "unreadable";
    if (!s.finished) return "unfinished";
    return s.success ? "finished" : "failed";
}

int List(const std::string& dir) {
    std::vector<std::string> files;
    if (!JrnlFilePersistenceProvider::GetJournalFiles(dir, files)) {
        std::fprintf(stderr, "tessera-journal: cannot list %s\n", dir.c_str());
        return 2;
    }
    int unfinished = 0;
    for (const std::string& path : files) {
        JrnlFileState s;
        BasicFileOpsJournal::ReadJournalFile(path, sQuiet, s);
        std::printf("%-28s %-10s %4zu entries", path.c_str(), StateOf(s), s.entries.size());
        if (s.readable && s.IsUnfinished()) std::printf(", %zu steps to undo", s.toUndo.size());
        if (s.tornBytes > 0)
            std::printf(", torn tail of %lld bytes", static_cast<long long>(s.tornBytes));
        if (!s.readable) std::printf(": %s", s.failure.c_str());
        std::printf("\n");
        unfinished += !s.readable || s.IsUnfinished();
    }
    std::printf("%zu journals, %d unfinished\n", files.size(), unfinished);
    return unfinished > 0 ? 1 : 0;
}

int Dump(const std::string& path) {
    JrnlFileState s;
    BasicFileOpsJournal::ReadJournalFile(path, sQuiet, s);
    if (!s.readable) {
        std::fprintf(stderr, "tessera-journal: %s: %s\n", path.c_str(), s.failure.c_str());
        return 2;
    }
    const JrnlHeader& h = s.header;
    std::printf(
        "\tPrinting journal %s: version: %u, magic: 0x%08X, type: %u, client data: %zu "
        "bytes\n",
        h.GetJournalId().c_str(), h.GetVersion(), h.GetMagic(), h.GetJournalType(),
        h.GetClientData().size());
    int index = 0;
    for (const Ref<BaseJrnlEntry>& e : s.entries) {
        std::printf("%4d %lld%s\n", index++, static_cast<long long>(e->GetTimestamp()),
                    e->Describe().c_str());
    }
    std::printf("state: %s", StateOf(s));
    if (s.IsUnfinished()) {
        std::printf(", to undo (newest first):");
        for (const JrnlStepToUndo& step : s.toUndo) std::printf(" %d", step.index);
    }
    std::printf("\n");
    return 0;
}

// Reports the first fault of one file; true when there is none.
bool CheckFile(const std::string& path, bool& unreadable) {
    JrnlFileScan scan;
    try {
        JrnlFilePersistenceProvider::ScanFile(path, scan);
    } catch (const Exception& e) {
        std::printf("%s: cannot read: %s\n", path.c_str(), e.what());
        unreadable = true;
        return false;
    }
    if (!scan.isJournal) {
        std::printf("%s: not a journal file\n", path.c_str());
        return false;
    }
    PersistenceRecordList records;
    Ref<JrnlFilePersistenceProvider> provider(new JrnlFilePersistenceProvider(path, sQuiet, false));
    try {
        provider->ReadAllRecords(records);
    } catch (const Exception& e) {
        std::printf("%s: %s\n", path.c_str(), e.what());
        return false;
    }
    JrnlEntryCreatorMap table;
    BaseJournal::BaseJrnlRegisterEntryCreators(table);
    BasicFileOpsJournal::JrnlRegisterEntryCreators(table);
    std::size_t i = 0;
    bool ok = true;
    for (const PersistenceRecord& r : records) {
        const long long offset = static_cast<long long>(scan.recordOffsets[i]);
        const std::size_t len = static_cast<std::size_t>(r.GetDataLen());
        std::string fault =
            i == 0 ? BasicFileOpsJournal::CheckRecordFit(r.GetData(), len, true) : std::string();
        if (fault.empty()) {
            try {
                if (i == 0) {
                    JrnlHeader h;
                    BaseJournal::PersistenceRecordToHeader(r, h);
                    if (!h.IsValid()) fault = "invalid header";
                } else {
                    Ref<BaseJrnlEntry> entry;
                    BasicFileOpsJournal::RecordToEntryChecked(&table, sQuiet, r, entry);
                }
            } catch (const JrnlException& e) {
                fault = e.what();
            }
        }
        if (!fault.empty()) {
            std::printf("%s: corrupt record %zu (%zu bytes) at offset %lld: %s\n", path.c_str(), i,
                        len, offset, fault.c_str());
            ok = false;
            break;
        }
        ++i;
    }
    if (scan.validLength < scan.fileSize) {
        std::printf("%s: torn tail of %lld bytes at offset %lld, after record %zu\n", path.c_str(),
                    static_cast<long long>(scan.fileSize - scan.validLength),
                    static_cast<long long>(scan.validLength), scan.recordOffsets.size());
        ok = false;
    }
    if (ok) std::printf("%s: ok, %zu records\n", path.c_str(), records.size());
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return Usage();
    sQuiet = new Logger("tessera-journal", Logger::MASK_NONE);
    const std::string command = argv[1];
    try {
        if (command == "list" && argc == 3) return List(argv[2]);
        if (command == "dump" && argc == 3) return Dump(argv[2]);
        if (command == "check") {
            bool unreadable = false, damaged = false;
            for (int i = 2; i < argc; ++i) damaged |= !CheckFile(argv[i], unreadable);
            return unreadable ? 2 : damaged ? 1 : 0;
        }
    } catch (const Exception& e) {
        std::fprintf(stderr, "tessera-journal: %s\n", e.what());
        return 2;
    }
    return Usage();
}
