// The file-operations journal: the process-wide directory and creator table,
// and a journal's steps. Its entries are in journal/fileOpsEntries.cpp; reading
// journals back for recovery is in journal/fileOpsRecovery.cpp.

#include <tessera/assert.h>
#include <tessera/basicFileOpsJournal.h>
#include <tessera/formatter.h>
#include <tessera/system/syncRaii.h>
#include <tessera/system/system.h>

#include "journal/fileOpsInternal.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace Tessera {
namespace Service {

std::string BasicFileOpsJournal::_journalDir;
Ref<Logger> BasicFileOpsJournal::_defaultLogger;
JrnlEntryCreatorMap BasicFileOpsJournal::_jrnlEntryCreatorMap;
std::atomic<std::uint32_t> BasicFileOpsJournal::_journalCounter{0};

std::mutex& FileOpsInitLock() {
    static std::mutex lock;
    return lock;
}

namespace {

std::string JoinPath(const std::string& dir, const std::string& name) {
    const char separator = System::GetPathSeparator();
    if (!dir.empty() && (dir.back() == separator || dir.back() == '/')) return dir + name;
    return dir + separator + name;
}

std::string BaseName(const std::string& path) {
    const std::string::size_type at =
        path.find_last_of(System::GetPathSeparator() == '\\' ? "/\\" : "/");
    return at == std::string::npos ? path : path.substr(at + 1);
}

} // namespace

// ---- process-wide state ----

bool BasicFileOpsJournal::Init(const std::string& directory, const Ref<Logger>& logger) {
    std::lock_guard<std::mutex> hold(FileOpsInitLock());
    EnsureMapMutex();
    System::Synchronized table(_jrnlMapMutex);
    Ref<Logger> log = logger;
    if (log.IsNull()) GetDefaultLogger(log);
    if (!_journalDir.empty()) {
        if (_journalDir == directory) return true;
        TESSERA_LOG(log, Logger::LOG_ERROR, "Init: Already initialized with directory %1",
                    _journalDir);
        throw JrnlException("Journaling is already initialized with a different directory");
    }
    try {
        Ref<System::File> dir;
        System::GetSystemFactory()->GetFile(directory, dir);
        dir->MakeDirectories();
    } catch (const Exception&) {
        TESSERA_LOG(log, Logger::LOG_ERROR, "Init: Could not create directory %1", directory);
        return false;
    }
    _journalDir = directory;
    _defaultLogger = log;
    BaseJrnlRegisterEntryCreators(_jrnlEntryCreatorMap);
    JrnlRegisterEntryCreators(_jrnlEntryCreatorMap);
    TESSERA_LOG(log, Logger::LOG_INFO, "Init: Succeeded with directory = %1", directory);
    return true;
}

bool BasicFileOpsJournal::Exit() {
    std::lock_guard<std::mutex> hold(FileOpsInitLock());
    Ref<Logger> log = _defaultLogger;
    if (log.IsNull()) GetDefaultLogger(log);
    const std::size_t open = CountListed();
    if (open > 0) {
        TESSERA_LOG(log, Logger::LOG_WARNING,
                    "[JrnlEntry]: There are %1 unfreed journals. There might be a leak",
                    static_cast<unsigned long>(open));
    }
    if (!_journalDir.empty()) {
        BaseJrnlUnregisterEntryCreators(_jrnlEntryCreatorMap);
        JrnlUnregisterEntryCreators(_jrnlEntryCreatorMap);
    }
    TESSERA_ASSERT(_jrnlEntryCreatorMap.size() == 0);
    _journalDir.clear();
    _defaultLogger = nullptr;
    TESSERA_LOG(log, Logger::LOG_INFO, "Exit: Succeeded");
    return true;
}

void BasicFileOpsJournal::JrnlRegisterEntryCreators(JrnlEntryCreatorMap& table) {
    RegisterEntryCreator(table, JrnlDirEntry::OP_CODE, &JrnlDirEntry::Create);
    RegisterEntryCreator(table, JrnlFileEntry::OP_CODE, &JrnlFileEntry::Create);
    RegisterEntryCreator(table, JrnlIntFieldEntry::OP_CODE, &JrnlIntFieldEntry::Create);
    RegisterEntryCreator(table, JrnlLongFieldEntry::OP_CODE, &JrnlLongFieldEntry::Create);
    RegisterEntryCreator(table, JrnlStringFieldEntry::OP_CODE, &JrnlStringFieldEntry::Create);
}

void BasicFileOpsJournal::JrnlUnregisterEntryCreators(JrnlEntryCreatorMap& table) {
    UnregisterEntryCreator(table, JrnlDirEntry::OP_CODE);
    UnregisterEntryCreator(table, JrnlFileEntry::OP_CODE);
    UnregisterEntryCreator(table, JrnlIntFieldEntry::OP_CODE);
    UnregisterEntryCreator(table, JrnlLongFieldEntry::OP_CODE);
    UnregisterEntryCreator(table, JrnlStringFieldEntry::OP_CODE);
}

// ---- a journal ----

BasicFileOpsJournal::BasicFileOpsJournal(const Ref<Logger>& logger, std::uint32_t jrnlType,
                                         const void* clientData, std::uint32_t clientDataLen)
    : _logger(logger) {
    const std::string dir = GetJournalDir();
    if (dir.empty()) throw JrnlException("Journal is not initialized");
    if (_logger.IsNull()) _logger = _defaultLogger;
    // Ids are unique within a process; a file left by another process (one
    // that crashed in the same second, say) is never overwritten: its id is
    // skipped.
    for (int attempt = 0;; ++attempt) {
        char id[48];
        std::snprintf(id, sizeof(id), "%" PRIu64 ".%u",
                      static_cast<std::uint64_t>(std::time(nullptr)),
                      static_cast<unsigned>(_journalCounter.fetch_add(1)));
        _jrnlId = id;
        const std::string path = JoinPath(dir, _jrnlId);
        Ref<System::File> file;
        System::GetSystemFactory()->GetFile(path, file);
        if (attempt < 1000 && file->Exists()) continue;
        try {
            _provider = new JrnlFilePersistenceProvider(path, _logger, true);
            break;
        } catch (const JrnlException& e) {
            if (attempt < 1000 && file->Exists()) continue;
            TESSERA_LOG(_logger, Logger::LOG_ERROR, "Failed to create journal file %1.", path);
            throw JrnlException(std::string("Failed to create journal file provider: ") + e.what());
        }
    }
    System::GetSystemFactory()->CreateSimpleMutex(_mutex);
    TESSERA_ASSERT(!_provider->GetJournalID().empty());
    ListJournal(_jrnlId, this);
    _listed = true;
    const JrnlHeader header(jrnlType, clientData, clientDataLen, _jrnlId);
    Ref<StringWriter> writer;
    CreateStringWriter(writer, 64);
    header.Serialize(writer.Get());
    const std::string& data = writer->GetString();
    if (data.size() > static_cast<std::size_t>(BaseJrnlEntry::MAX_JOURNALDATA_SIZE)) {
        UnlistJournal(_jrnlId, this);
        _listed = false;
        throw JrnlException("Journal header exceeds the largest record");
    }
    try {
        _provider->WriteRecord(data.data(), static_cast<std::uint32_t>(data.size()));
    } catch (...) {
        UnlistJournal(_jrnlId, this);
        _listed = false;
        throw;
    }
}

BasicFileOpsJournal::BasicFileOpsJournal(const Ref<Logger>& logger, const std::string& jrnlFilePath)
    : _logger(logger) {
    if (GetJournalDir().empty()) throw JrnlException("Journal is not initialized");
    if (_logger.IsNull()) _logger = _defaultLogger;
    Ref<JrnlFilePersistenceProvider> provider(
        new JrnlFilePersistenceProvider(jrnlFilePath, _logger, false));
    PersistenceRecordList records;
    try {
        provider->ReadAllRecords(records);
    } catch (const JrnlException& e) {
        TESSERA_LOG(_logger, Logger::LOG_ERROR, "Journal failure: %1", e.what());
        throw JrnlException("Invalid journal file");
    }
    JrnlHeader header;
    bool valid = false;
    if (!records.empty()) {
        try {
            PersistenceRecordToHeader(records.front(), header);
            valid = header.IsValid();
        } catch (const JrnlException& e) {
            TESSERA_LOG(_logger, Logger::LOG_ERROR, "Journal failure: %1", e.what());
        }
    }
    if (!valid) throw JrnlException("Invalid journal file");
    if (!header.Agrees(JrnlHeader(0, nullptr, 0, header.GetJournalId()))) {
        throw JrnlException("Unrecognized journal file");
    }
    const std::string fileId = BaseName(jrnlFilePath);
    if (header.GetJournalId() != fileId) {
        throw JrnlException(MessageFormatter::ASPrint("Journal ID mismatch: %1 vs. %2",
                                                      header.GetJournalId(), fileId));
    }
    if (IsListed(header.GetJournalId())) throw JrnlException("The journal already exists");
    // Appends must follow the last whole record, where readers find them.
    provider->CutTornTail();
    _jrnlId = header.GetJournalId();
    _provider = provider;
    _entryCount = static_cast<int>(records.size() - 1);
    System::GetSystemFactory()->CreateSimpleMutex(_mutex);
    ListJournal(_jrnlId, this);
    _listed = true;
}

BasicFileOpsJournal::~BasicFileOpsJournal() {
    if (_listed) UnlistJournal(_jrnlId, this);
}

std::string BasicFileOpsJournal::GetJournalDir() const {
    std::lock_guard<std::mutex> hold(FileOpsInitLock());
    return _journalDir;
}

JrnlEntryCreatorMap* BasicFileOpsJournal::GetEntryCreatorMap() const {
    return &_jrnlEntryCreatorMap;
}

int BasicFileOpsJournal::GetEntryCount() const {
    System::Synchronized hold(_mutex);
    return _entryCount;
}

EntryInsertionResult BasicFileOpsJournal::Append(const BaseJrnlEntry& entry) {
    System::Synchronized hold(_mutex);
    AppendEntry(_provider, entry);
    return _entryCount++;
}

EntryInsertionResult BasicFileOpsJournal::CreateDirectory(const std::string& path) {
    return Append(JrnlDirEntry(_logger, true, path));
}

EntryInsertionResult BasicFileOpsJournal::DeleteDirectory(const std::string& path) {
    return Append(JrnlDirEntry(_logger, false, path));
}

EntryInsertionResult BasicFileOpsJournal::CreateRegularFile(const std::string& path) {
    return Append(JrnlFileEntry(_logger, true, JRNL_FILE_REGULAR, path));
}

EntryInsertionResult BasicFileOpsJournal::DeleteRegularFile(const std::string& path) {
    return Append(JrnlFileEntry(_logger, false, JRNL_FILE_REGULAR, path));
}

EntryInsertionResult BasicFileOpsJournal::CreateDiskFile(const std::string& path) {
    return Append(JrnlFileEntry(_logger, true, JRNL_FILE_DISK, path));
}

EntryInsertionResult BasicFileOpsJournal::DeleteDiskFile(const std::string& path) {
    return Append(JrnlFileEntry(_logger, false, JRNL_FILE_DISK, path));
}

EntryInsertionResult BasicFileOpsJournal::AddIntFieldEntry(const std::string& name,
                                                           std::uint32_t value) {
    return Append(JrnlIntFieldEntry(_logger, name, value));
}

EntryInsertionResult BasicFileOpsJournal::AddStringFieldEntry(const std::string& name,
                                                              const std::string& value) {
    return Append(JrnlStringFieldEntry(_logger, name, value));
}

EntryInsertionResult BasicFileOpsJournal::AddLongFieldEntry(const std::string& name,
                                                            std::int64_t value) {
    return Append(JrnlLongFieldEntry(_logger, name, value));
}

EntryInsertionResult BasicFileOpsJournal::UndoEntry(EntryInsertionResult entry) {
    System::Synchronized hold(_mutex);
    AppendUndoFormerEntry(_logger, _provider, entry);
    return _entryCount++;
}

void BasicFileOpsJournal::Finish(bool success) {
    {
        System::Synchronized hold(_mutex);
        AppendEndEntry(_logger, _provider, success);
        ++_entryCount;
    }
    if (_listed) {
        UnlistJournal(_jrnlId, this);
        _listed = false;
    }
}

void BasicFileOpsJournal::DeleteJournal() {
    System::Synchronized hold(_mutex);
    BaseJournal::DeleteJournal();
    if (_listed) {
        UnlistJournal(_jrnlId, this);
        _listed = false;
    }
}

bool BasicFileOpsJournal::ReadBack(JrnlHeader* header, JrnlEntryList* entries) {
    try {
        System::Synchronized hold(_mutex);
        PersistenceRecordList records;
        _provider->ReadAllRecords(records);
        if (records.empty()) throw JrnlException("Invalid journal file");
        if (header != nullptr) PersistenceRecordToHeader(records.front(), *header);
        if (entries != nullptr) {
            records.pop_front();
            for (const PersistenceRecord& record : records) {
                Ref<BaseJrnlEntry> entry;
                PersistenceRecordToEntryCompat(GetEntryCreatorMap(), _logger, record, entry);
                entries->push_back(entry);
            }
        }
        return true;
    } catch (const JrnlException& e) {
        TESSERA_LOG(_logger, Logger::LOG_ERROR, "Journal failure: %1", e.what());
        return false;
    }
}

bool BasicFileOpsJournal::GetJournalAsList(JrnlEntryList& out) { return ReadBack(nullptr, &out); }

bool BasicFileOpsJournal::GetJournalHeader(JrnlHeader& out) { return ReadBack(&out, nullptr); }

void BasicFileOpsJournal::PrintJournal() {
    JrnlHeader header;
    JrnlEntryList entries;
    if (!ReadBack(&header, nullptr) || !ReadBack(nullptr, &entries)) return;
    TESSERA_LOG(_logger, Logger::LOG_VERBOSE,
                "\tPrinting journal %1: version: %2, type: %3, client data: %4 bytes",
                header.GetJournalId(), header.GetVersion(), header.GetJournalType(),
                static_cast<unsigned long>(header.GetClientData().size()));
    for (const Ref<BaseJrnlEntry>& entry : entries) entry->Print();
}

} // namespace Service
} // namespace Tessera
