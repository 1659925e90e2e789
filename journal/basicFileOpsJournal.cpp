// The file-operations journal: its entries, the process-wide directory and
// creator table, the steps, and reading journals back for recovery.

#include <tessera/assert.h>
#include <tessera/basicFileOpsJournal.h>
#include <tessera/formatter.h>
#include <tessera/system/syncRaii.h>
#include <tessera/system/system.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>

namespace Tessera {
namespace Service {

std::string BasicFileOpsJournal::_journalDir;
Ref<Logger> BasicFileOpsJournal::_defaultLogger;
JrnlEntryCreatorMap BasicFileOpsJournal::_jrnlEntryCreatorMap;
std::atomic<std::uint32_t> BasicFileOpsJournal::_journalCounter{0};

namespace {

const char* const kTooSmallEntry = "Buffer is too small to have a valid entry";
const char* const kInvalidEntry = "Serializing Invalid Journal Entry";

// Init and Exit, and the directory they set.
std::mutex& InitLock() {
    static std::mutex lock;
    return lock;
}

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

}  // namespace

// ---- entries ----

JrnlFileEntry::JrnlFileEntry(const Ref<Logger>& logger, bool isCreate, std::uint32_t fileType,
                             const std::string& path)
    : BaseJrnlEntry(logger), _isCreate(isCreate), _fileType(fileType), _path(path) {
    TESSERA_ASSERT(BasicFileOpsJournal::IS_VALID_FILE_TYPE(fileType));
}

int JrnlDirEntry::Serialize(Writer* writer) const {
    if (!IsValid()) throw JrnlException(kInvalidEntry);
    const char flag = _isCreate ? 1 : 0;
    return BaseSerialize(writer) + SerializePrimitive(writer, &flag, 1) +
           SerializeString(writer, _path);
}

int JrnlDirEntry::Deserialize(const char* buffer, std::size_t len) {
    const std::size_t neededMin = 8 + 1 + 4;
    if (len < neededMin) throw JrnlException(kTooSmallEntry);
    std::size_t skip = BaseDeserialize(buffer, len);
    char flag = 0;
    skip += DeserializePrimitive(buffer + skip, len - skip, &flag, 1);
    skip += DeserializeString(buffer + skip, len - skip, _path);
    _isCreate = flag != 0;
    TESSERA_ASSERT(skip == len);
    return static_cast<int>(skip);
}

std::string JrnlDirEntry::Describe() const {
    return MessageFormatter::ASPrint("\t\tPrinting JrnlDirEntry: dirpath: %1, isCreate: %2", _path,
                                     _isCreate);
}

BaseJrnlEntry* JrnlDirEntry::Create(const Ref<Logger>& logger, const char* buffer,
                                    std::size_t len) {
    Ref<JrnlDirEntry> entry(new JrnlDirEntry(logger, false, std::string()));
    entry->Deserialize(buffer, len);
    return entry.Detach();
}

int JrnlFileEntry::Serialize(Writer* writer) const {
    if (!IsValid()) throw JrnlException(kInvalidEntry);
    const char flag = _isCreate ? 1 : 0;
    return BaseSerialize(writer) + SerializePrimitive(writer, &flag, 1) +
           SerializePrimitive(writer, &_fileType, sizeof(_fileType)) +
           SerializeString(writer, _path);
}

int JrnlFileEntry::Deserialize(const char* buffer, std::size_t len) {
    const std::size_t neededMin = 8 + 1 + 4 + 4;
    if (len < neededMin) throw JrnlException(kTooSmallEntry);
    std::size_t skip = BaseDeserialize(buffer, len);
    char flag = 0;
    skip += DeserializePrimitive(buffer + skip, len - skip, &flag, 1);
    std::uint32_t type = 0;
    skip += DeserializePrimitive(buffer + skip, len - skip, &type, sizeof(type));
    skip += DeserializeString(buffer + skip, len - skip, _path);
    _isCreate = flag != 0;
    _fileType = type;
    TESSERA_ASSERT(skip == len);
    return static_cast<int>(skip);
}

std::string JrnlFileEntry::Describe() const {
    return MessageFormatter::ASPrint(
        "\t\tPrinting JrnlFileEntry: filetype: %1, filepath: %2, isCreate: %3", _fileType, _path,
        _isCreate);
}

BaseJrnlEntry* JrnlFileEntry::Create(const Ref<Logger>& logger, const char* buffer,
                                     std::size_t len) {
    Ref<JrnlFileEntry> entry(new JrnlFileEntry(logger, false, JRNL_FILE_REGULAR, std::string()));
    entry->Deserialize(buffer, len);
    return entry.Detach();
}

int BaseJrnlFieldEntry::Serialize(Writer* writer) const {
    if (!IsValid()) throw JrnlException(kInvalidEntry);
    return BaseSerialize(writer) + SerializeString(writer, _fieldName) + SerializeValue(writer);
}

int BaseJrnlFieldEntry::Deserialize(const char* buffer, std::size_t len) {
    const std::size_t neededMin = 8 + 4 + GetMinValueSize();
    if (len < neededMin) throw JrnlException(kTooSmallEntry);
    std::size_t skip = BaseDeserialize(buffer, len);
    skip += DeserializeString(buffer + skip, len - skip, _fieldName);
    skip += DeserializeValue(buffer + skip, len - skip);
    TESSERA_ASSERT(skip == len);
    return static_cast<int>(skip);
}

std::string BaseJrnlFieldEntry::Describe() const {
    return MessageFormatter::ASPrint("\t\tPrinting JrnlFieldEntry: fieldname: %1, value: %2",
                                     _fieldName, GetValueText());
}

std::string JrnlIntFieldEntry::GetValueText() const {
    return std::to_string(_value);
}

int JrnlIntFieldEntry::SerializeValue(Writer* writer) const {
    return SerializePrimitive(writer, &_value, sizeof(_value));
}

int JrnlIntFieldEntry::DeserializeValue(const char* buffer, std::size_t len) {
    return DeserializePrimitive(buffer, len, &_value, sizeof(_value));
}

BaseJrnlEntry* JrnlIntFieldEntry::Create(const Ref<Logger>& logger, const char* buffer,
                                         std::size_t len) {
    Ref<JrnlIntFieldEntry> entry(new JrnlIntFieldEntry(logger, std::string(), 0));
    entry->Deserialize(buffer, len);
    return entry.Detach();
}

int JrnlStringFieldEntry::SerializeValue(Writer* writer) const {
    return SerializeString(writer, _value);
}

int JrnlStringFieldEntry::DeserializeValue(const char* buffer, std::size_t len) {
    return DeserializeString(buffer, len, _value);
}

BaseJrnlEntry* JrnlStringFieldEntry::Create(const Ref<Logger>& logger, const char* buffer,
                                            std::size_t len) {
    Ref<JrnlStringFieldEntry> entry(new JrnlStringFieldEntry(logger, std::string(), std::string()));
    entry->Deserialize(buffer, len);
    return entry.Detach();
}

std::string JrnlLongFieldEntry::GetValueText() const {
    return std::to_string(_value);
}

int JrnlLongFieldEntry::SerializeValue(Writer* writer) const {
    return SerializePrimitive(writer, &_value, sizeof(_value));
}

int JrnlLongFieldEntry::DeserializeValue(const char* buffer, std::size_t len) {
    return DeserializePrimitive(buffer, len, &_value, sizeof(_value));
}

BaseJrnlEntry* JrnlLongFieldEntry::Create(const Ref<Logger>& logger, const char* buffer,
                                          std::size_t len) {
    Ref<JrnlLongFieldEntry> entry(new JrnlLongFieldEntry(logger, std::string(), 0));
    entry->Deserialize(buffer, len);
    return entry.Detach();
}

// ---- process-wide state ----

bool BasicFileOpsJournal::Init(const std::string& directory, const Ref<Logger>& logger) {
    std::lock_guard<std::mutex> hold(InitLock());
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
    std::lock_guard<std::mutex> hold(InitLock());
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
    std::lock_guard<std::mutex> hold(InitLock());
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

bool BasicFileOpsJournal::GetJournalAsList(JrnlEntryList& out) {
    return ReadBack(nullptr, &out);
}

bool BasicFileOpsJournal::GetJournalHeader(JrnlHeader& out) {
    return ReadBack(&out, nullptr);
}

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

// ---- recovery ----

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
        case 1:
            return 12;
        case 2:
            return 13;
        case 3:
            return 16;
        case 4:
            at += 1;
            string();
            return at;
        case 5:
            at += 5;
            string();
            return at;
        case 6:
            string();
            return at == kShort ? kShort : at + 4;
        case 7:
            string();
            if (at != kShort) string();
            return at;
        case 8:
            string();
            return at == kShort ? kShort : at + 8;
        default:
            return kShort;
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

}  // namespace

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
        } catch (const JrnlException&) {
        }
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
        std::lock_guard<std::mutex> hold(InitLock());
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

}  // namespace Service
}  // namespace Tessera
