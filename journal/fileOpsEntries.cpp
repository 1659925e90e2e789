// The file-operations journal's entries: a directory or a file created or
// deleted, and named int, long and string fields; each writes itself as a
// record and reads itself back from one.

#include <tessera/assert.h>
#include <tessera/basicFileOpsJournal.h>
#include <tessera/formatter.h>

namespace Tessera {
namespace Service {

namespace {

const char* const kTooSmallEntry = "Buffer is too small to have a valid entry";
const char* const kInvalidEntry = "Serializing Invalid Journal Entry";

} // namespace

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

std::string JrnlIntFieldEntry::GetValueText() const { return std::to_string(_value); }

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

std::string JrnlLongFieldEntry::GetValueText() const { return std::to_string(_value); }

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

} // namespace Service
} // namespace Tessera
