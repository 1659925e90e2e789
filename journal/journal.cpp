// Journal headers, the base entries, creator tables and the table of open
// journals.

#include <tessera/assert.h>
#include <tessera/formatter.h>
#include <tessera/journal.h>
#include <tessera/system/syncRaii.h>
#include <tessera/system/system.h>

#include <cstring>
#include <ctime>

namespace Tessera {
namespace Service {

std::map<std::string, BaseJournal*> BaseJournal::_jrnlMap;
Ref<System::Mutex> BaseJournal::_jrnlMapMutex;

namespace {

const char* const kTooSmallHeader =
    "Buffer is too small to have a full record. Journal might be corrupt";
const char* const kTooSmallEntry = "Buffer is too small to have a valid entry";

std::uint32_t Load32(const char* p) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

void Put32(Writer* w, std::uint32_t v) {
    w->Write(reinterpret_cast<const char*>(&v), 4);
}

std::mutex& MapMutexCreation() {
    static std::mutex lock;
    return lock;
}

}  // namespace

static_assert(sizeof(std::int64_t) == 8 && sizeof(std::uint32_t) == 4, "field sizes");

// ---- JrnlHeader ----

JrnlHeader::JrnlHeader()
    : _version(JRNL_VERSION), _magic(JRNL_MAGIC), _jrnlType(0), _clientDataLen(0) {}

JrnlHeader::JrnlHeader(std::uint32_t jrnlType, const void* clientData, std::uint32_t clientDataLen,
                       const std::string& jrnlId)
    : _version(JRNL_VERSION),
      _magic(JRNL_MAGIC),
      _jrnlType(jrnlType),
      _clientDataLen(clientData != nullptr ? clientDataLen : 0),
      _clientData(clientData != nullptr
                      ? std::string(static_cast<const char*>(clientData), clientDataLen)
                      : std::string()),
      _jrnlId(jrnlId) {}

int JrnlHeader::Serialize(Writer* writer) const {
    TESSERA_ASSERT(writer != 0);
    if (_jrnlId.empty()) throw JrnlException("Serializing Invalid Header");
    const std::uint32_t strLen = static_cast<std::uint32_t>(_jrnlId.size() + 1);
    const int neededLen = static_cast<int>(_clientDataLen + strLen + 20);
    int len = 0;
    Put32(writer, _version);
    Put32(writer, _magic);
    Put32(writer, _jrnlType);
    Put32(writer, _clientDataLen);
    len += 16;
    writer->Write(_clientData.data(), static_cast<int>(_clientDataLen));
    len += static_cast<int>(_clientDataLen);
    Put32(writer, strLen);
    writer->Write(_jrnlId.c_str(), static_cast<int>(strLen));
    len += 4 + static_cast<int>(strLen);
    TESSERA_ASSERT(len == neededLen);
    return len;
}

int JrnlHeader::Deserialize(const char* buffer, std::size_t len) {
    TESSERA_ASSERT(buffer != 0);
    const std::uint64_t n = len;
    if (n < 21) throw JrnlException(kTooSmallHeader);
    _version = Load32(buffer);
    _magic = Load32(buffer + 4);
    _jrnlType = Load32(buffer + 8);
    const std::uint64_t l = Load32(buffer + 12);
    if (n < l + 21) throw JrnlException(kTooSmallHeader);
    _clientDataLen = static_cast<std::uint32_t>(l);
    _clientData.assign(buffer + 16, static_cast<std::size_t>(l));
    const std::uint64_t strLen = Load32(buffer + 16 + l);
    TESSERA_ASSERT(strLen > 0);
    if (n < l + strLen + 20) throw JrnlException(kTooSmallHeader);
    if (buffer[l + strLen + 19] != '\0') {
        throw JrnlException("Unexpected character found in the header. Perhaps corrupt journal");
    }
    _jrnlId.assign(buffer + 20 + l, static_cast<std::size_t>(strLen - 1));
    const std::uint64_t skip = l + strLen + 20;
    TESSERA_ASSERT(skip == len);
    return static_cast<int>(skip);
}

bool JrnlHeader::IsValid() const {
    return !_jrnlId.empty() && (_clientDataLen != 0) == !_clientData.empty();
}

bool JrnlHeader::Agrees(const JrnlHeader& other) const {
    return IsValid() && other.IsValid() && _version == other._version && _magic == other._magic;
}

// ---- BaseJrnlEntry ----

BaseJrnlEntry::BaseJrnlEntry(const Ref<Logger>& logger)
    : _logger(logger), _timestamp(static_cast<std::int64_t>(std::time(nullptr))) {}

BaseJrnlEntry::BaseJrnlEntry(const BaseJrnlEntry& other)
    : Object(), ObjectImpl(other), _logger(other._logger), _timestamp(other._timestamp) {}

BaseJrnlEntry& BaseJrnlEntry::operator=(const BaseJrnlEntry& other) {
    _logger = other._logger;
    _timestamp = other._timestamp;
    return *this;
}

BaseJrnlEntry::~BaseJrnlEntry() = default;

bool BaseJrnlEntry::IsValid() const {
    return true;
}

void BaseJrnlEntry::Print() const {
    if (_logger.IsNull()) return;
    TESSERA_LOG(_logger, Logger::LOG_VERBOSE, "%1", Describe());
}

int BaseJrnlEntry::BaseSerialize(Writer* writer) const {
    TESSERA_ASSERT(writer != 0);
    return SerializePrimitive(writer, &_timestamp, sizeof(_timestamp));
}

int BaseJrnlEntry::BaseDeserialize(const char* buffer, std::size_t size) {
    const std::size_t len = sizeof(_timestamp);
    TESSERA_ASSERT(size >= len);
    return DeserializePrimitive(buffer, size, &_timestamp, len);
}

int BaseJrnlEntry::SerializePrimitive(Writer* writer, const void* bytes, int length) {
    TESSERA_ASSERT(writer != 0);
    writer->Write(static_cast<const char*>(bytes), length);
    return length;
}

int BaseJrnlEntry::SerializeString(Writer* writer, const std::string& text) {
    TESSERA_ASSERT(writer != 0);
    const std::uint32_t length = static_cast<std::uint32_t>(text.size() + 1);
    Put32(writer, length);
    writer->Write(text.c_str(), static_cast<int>(length));
    return static_cast<int>(length) + 4;
}

int BaseJrnlEntry::DeserializePrimitive(const char* buffer, std::size_t size, void* output,
                                        std::size_t length) {
    if (size < length) throw JrnlException("Buffer is too small for deserialization");
    std::memcpy(output, buffer, length);
    return static_cast<int>(length);
}

int BaseJrnlEntry::DeserializeString(const char* buffer, std::size_t size, std::string& output) {
    if (size < 4) throw JrnlException("Buffer is too small for deserialization");
    const std::uint64_t stored = Load32(buffer);
    if (stored > size - 4) throw JrnlException("Buffer is too small for string deserialization");
    if (stored == 0 || buffer[4 + stored - 1] != '\0') {
        throw JrnlException("Record is corrupt -- journal might be corrupt");
    }
    output.assign(buffer + 4, static_cast<std::size_t>(stored - 1));
    return static_cast<int>(stored) + 4;
}

// ---- the base entries ----

int JrnlBeginEntry::Serialize(Writer* writer) const {
    return BaseSerialize(writer);
}

int JrnlBeginEntry::Deserialize(const char* buffer, std::size_t len) {
    const std::size_t size = 8;
    if (len < size) throw JrnlException(kTooSmallEntry);
    TESSERA_ASSERT(len == size);
    return BaseDeserialize(buffer, len);
}

std::string JrnlBeginEntry::Describe() const {
    return "\t\tPrinting JrnlBeginEntry";
}

BaseJrnlEntry* JrnlBeginEntry::Create(const Ref<Logger>& logger, const char* buffer,
                                      std::size_t len) {
    Ref<JrnlBeginEntry> entry(new JrnlBeginEntry(logger));
    entry->Deserialize(buffer, len);
    return entry.Detach();
}

int JrnlEndEntry::Serialize(Writer* writer) const {
    const char flag = _success ? 1 : 0;
    return BaseSerialize(writer) + SerializePrimitive(writer, &flag, 1);
}

int JrnlEndEntry::Deserialize(const char* buffer, std::size_t len) {
    const std::size_t size = 9;
    if (len < size) throw JrnlException(kTooSmallEntry);
    TESSERA_ASSERT(len == size);
    int skip = BaseDeserialize(buffer, len);
    char flag = 0;
    skip += DeserializePrimitive(buffer + skip, len - skip, &flag, 1);
    _success = flag != 0;
    return skip;
}

std::string JrnlEndEntry::Describe() const {
    return MessageFormatter::ASPrint("\t\tPrinting JrnlEndEntry: success: %1", _success);
}

BaseJrnlEntry* JrnlEndEntry::Create(const Ref<Logger>& logger, const char* buffer,
                                    std::size_t len) {
    Ref<JrnlEndEntry> entry(new JrnlEndEntry(logger, false));
    entry->Deserialize(buffer, len);
    return entry.Detach();
}

int JrnlUndoFormerEntry::Serialize(Writer* writer) const {
    return BaseSerialize(writer) + SerializePrimitive(writer, &_undone, sizeof(_undone));
}

int JrnlUndoFormerEntry::Deserialize(const char* buffer, std::size_t len) {
    const std::size_t size = 12;
    if (len < size) throw JrnlException(kTooSmallEntry);
    TESSERA_ASSERT(len == size);
    int skip = BaseDeserialize(buffer, len);
    skip += DeserializePrimitive(buffer + skip, len - skip, &_undone, sizeof(_undone));
    return skip;
}

std::string JrnlUndoFormerEntry::Describe() const {
    return MessageFormatter::ASPrint("\t\tPrinting JrnlUndoFormerEntry: %1", _undone);
}

BaseJrnlEntry* JrnlUndoFormerEntry::Create(const Ref<Logger>& logger, const char* buffer,
                                           std::size_t len) {
    Ref<JrnlUndoFormerEntry> entry(new JrnlUndoFormerEntry(logger, 0));
    entry->Deserialize(buffer, len);
    return entry.Detach();
}

// ---- BaseJournal ----

BaseJournal::~BaseJournal() = default;

void BaseJournal::DeleteJournal() {
    Ref<JrnlPersistenceProvider> provider;
    GetProvider(provider);
    try {
        provider->DeleteJournal();
    } catch (const Exception&) {
        throw JrnlException("Failed to delete the journal");
    }
}

void BaseJournal::AppendEndEntry(const Ref<Logger>& logger,
                                 const Ref<JrnlPersistenceProvider>& provider, bool success) {
    AppendEntry(provider, JrnlEndEntry(logger, success));
}

void BaseJournal::AppendUndoFormerEntry(const Ref<Logger>& logger,
                                        const Ref<JrnlPersistenceProvider>& provider,
                                        EntryInsertionResult undone) {
    AppendEntry(provider, JrnlUndoFormerEntry(logger, undone));
}

void BaseJournal::RegisterEntryCreator(JrnlEntryCreatorMap& table, std::int32_t opCode,
                                       JrnlEntryCreator f) {
    TESSERA_ASSERT(f != 0);
    if (!table.emplace(opCode, f).second) {
        throw JrnlException(
            MessageFormatter::ASPrint("An object creator has already been registered for this "
                                      "operation (OP: %1 SIZE: %2",
                                      opCode, static_cast<unsigned long>(table.size())));
    }
}

void BaseJournal::UnregisterEntryCreator(JrnlEntryCreatorMap& table, std::int32_t opCode) {
    if (table.erase(opCode) == 0) {
        throw JrnlException("Trying to unregister an unexisting entry creator");
    }
}

void BaseJournal::BaseJrnlRegisterEntryCreators(JrnlEntryCreatorMap& table) {
    RegisterEntryCreator(table, JrnlUndoFormerEntry::OP_CODE, &JrnlUndoFormerEntry::Create);
    RegisterEntryCreator(table, JrnlBeginEntry::OP_CODE, &JrnlBeginEntry::Create);
    RegisterEntryCreator(table, JrnlEndEntry::OP_CODE, &JrnlEndEntry::Create);
}

void BaseJournal::BaseJrnlUnregisterEntryCreators(JrnlEntryCreatorMap& table) {
    UnregisterEntryCreator(table, JrnlUndoFormerEntry::OP_CODE);
    UnregisterEntryCreator(table, JrnlBeginEntry::OP_CODE);
    UnregisterEntryCreator(table, JrnlEndEntry::OP_CODE);
}

void BaseJournal::PersistenceRecordToHeader(const PersistenceRecord& record, JrnlHeader& out) {
    out.Deserialize(record.GetData(), static_cast<std::size_t>(record.GetDataLen()));
}

void BaseJournal::PersistenceRecordToEntry(const PersistenceRecord& record,
                                           Ref<BaseJrnlEntry>& out) {
    Ref<Logger> logger;
    GetLogger(logger);
    PersistenceRecordToEntry(GetEntryCreatorMap(), logger, record, out);
}

void BaseJournal::PersistenceRecordToEntry(const JrnlEntryCreatorMap* cMap,
                                           const Ref<Logger>& logger,
                                           const PersistenceRecord& record,
                                           Ref<BaseJrnlEntry>& out) {
    const std::int64_t len = record.GetDataLen();
    if (len < 4) throw JrnlException("Buffer size is too small to have an entry");
    const std::int32_t opCode = static_cast<std::int32_t>(Load32(record.GetData()));
    TESSERA_ASSERT(cMap != 0);
    const JrnlEntryCreatorMap::const_iterator it = cMap->find(opCode);
    if (it == cMap->end()) {
        throw JrnlException("Unknown operation type is encountered. Cannot create entry");
    }
    BaseJrnlEntry* entry =
        it->second(logger, record.GetData() + 4, static_cast<std::size_t>(len - 4));
    TESSERA_ASSERT(entry != 0);
    // The creator hands over the only reference.
    out = Ref<BaseJrnlEntry>::Adopt(entry);
}

void BaseJournal::PersistenceRecordToEntryCompat(const JrnlEntryCreatorMap* cMap,
                                                 const Ref<Logger>& logger,
                                                 const PersistenceRecord& record,
                                                 Ref<BaseJrnlEntry>& out) {
    try {
        PersistenceRecordToEntry(cMap, logger, record, out);
        return;
    } catch (const JrnlException&) {
        if (record.GetDataLen() < 8)
            throw JrnlException("Record is too small to contain journal entry");
    }
    // The earlier layout: a 32-bit timestamp at offset 4, zero-extended.
    const std::size_t len = static_cast<std::size_t>(record.GetDataLen());
    std::string widened(len + 4, '\0');
    std::memcpy(&widened[0], record.GetData(), 4);
    std::memcpy(&widened[4], record.GetData() + 4, 4);
    std::memcpy(&widened[12], record.GetData() + 8, len - 8);
    TESSERA_LOG(logger.IsNull() ? DefaultLogger() : logger.Get(), Logger::LOG_INFO,
                "Compensating for a change in timestamp size.");
    PersistenceRecordToEntry(
        cMap, logger, PersistenceRecord(widened.data(), static_cast<std::int64_t>(len + 4)), out);
}

void BaseJournal::AppendEntry(const Ref<JrnlPersistenceProvider>& provider,
                              const BaseJrnlEntry& entry) {
    Ref<StringWriter> writer;
    CreateStringWriter(writer, 64);
    const std::int32_t opCode = entry.GetOpCode();
    writer->Write(reinterpret_cast<const char*>(&opCode), 4);
    entry.Serialize(writer.Get());
    const std::string& data = writer->GetString();
    if (data.size() > static_cast<std::size_t>(BaseJrnlEntry::MAX_JOURNALDATA_SIZE)) {
        throw JrnlException(MessageFormatter::ASPrint(
            "Journal entry of %1 bytes exceeds the limit of %2 bytes",
            static_cast<unsigned long>(data.size()), BaseJrnlEntry::MAX_JOURNALDATA_SIZE));
    }
    provider->WriteRecord(data.data(), static_cast<std::uint32_t>(data.size()));
}

void BaseJournal::EnsureMapMutex() {
    std::lock_guard<std::mutex> hold(MapMutexCreation());
    if (_jrnlMapMutex.IsNull()) System::GetSystemFactory()->CreateSimpleMutex(_jrnlMapMutex);
}

void BaseJournal::ListJournal(const std::string& id, BaseJournal* journal) {
    System::Mutex* const _jrnlMapMutex = BaseJournal::_jrnlMapMutex.Get();
    TESSERA_ASSERT(_jrnlMapMutex != 0);
    System::Synchronized hold(_jrnlMapMutex);
    TESSERA_ASSERT(_jrnlMap.find(id) == _jrnlMap.end());
    _jrnlMap[id] = journal;
}

void BaseJournal::UnlistJournal(const std::string& id, const BaseJournal* journal) {
    if (_jrnlMapMutex.IsNull()) return;
    System::Synchronized hold(_jrnlMapMutex);
    const std::map<std::string, BaseJournal*>::iterator it = _jrnlMap.find(id);
    if (it != _jrnlMap.end() && it->second == journal) _jrnlMap.erase(it);
}

bool BaseJournal::IsListed(const std::string& id) {
    System::Mutex* const _jrnlMapMutex = BaseJournal::_jrnlMapMutex.Get();
    TESSERA_ASSERT(_jrnlMapMutex != 0);
    System::Synchronized hold(_jrnlMapMutex);
    return _jrnlMap.find(id) != _jrnlMap.end();
}

std::size_t BaseJournal::CountListed() {
    if (_jrnlMapMutex.IsNull()) return 0;
    System::Synchronized hold(_jrnlMapMutex);
    return _jrnlMap.size();
}

bool BaseJournal::GetInt(const std::string& id, Ref<BaseJournal>& out) {
    System::Mutex* const _jrnlMapMutex = BaseJournal::_jrnlMapMutex.Get();
    TESSERA_ASSERT(_jrnlMapMutex != 0);
    System::Synchronized hold(_jrnlMapMutex);
    const std::map<std::string, BaseJournal*>::const_iterator it = _jrnlMap.find(id);
    if (it == _jrnlMap.end()) return false;
    out = it->second;
    return true;
}

}  // namespace Service
}  // namespace Tessera
