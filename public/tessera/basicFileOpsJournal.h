// The file-operations journal: a service that creates and deletes
// directories and files in several steps records each step here before it
// takes it, so that after a failure the half-done work can be rolled back.
//
//     BasicFileOpsJournal::Init("/var/lib/mysvc/journal", logger);   // once
//     Ref<BasicFileOpsJournal> j(new BasicFileOpsJournal(logger, 1, nullptr, 0));
//     j->CreateDirectory(dir);            // recorded, flushed ...
//     makeDirectory(dir);                 // ... and only then done
//     j->CreateRegularFile(file);
//     writeFile(file);
//     j->Finish(true);
//     j->DeleteJournal();
//
// After a crash, GetUnfinishedJournals lists the journals of the directory
// that have no end entry or whose end entry says failure, each with the steps
// still to undo, newest first; the service undoes each step itself and
// records it with UndoEntry on the journal reopened from its file, then
// finishes it.
//
// Each journal is one file in the journal directory named after its id,
// "<seconds since 1970>.<process counter>" ("1700000000.0"), joined to the
// directory with the platform's separator ('\' on Windows, '/' on POSIX).
// Every step is one record, on stable storage when the step returns (see
// jrnlPersistenceProvider.h for what that covers); the journal only records,
// it never touches the files it names.
//
// Entries (codes continue those of journal.h; each body starts with the
// timestamp):
//     4  JrnlDirEntry          isCreate (1 byte), directory path
//     5  JrnlFileEntry         isCreate (1 byte), file type (4 bytes), path
//     6  JrnlIntFieldEntry     field name, unsigned 32-bit value
//     7  JrnlStringFieldEntry  field name, string value
//     8  JrnlLongFieldEntry    field name, signed 64-bit value
//
// Thread safety: the steps of one journal may be called from several
// threads; each is ordered under the journal's mutex so that indices follow
// the records in the file. Init and Exit are not to race with journals in use.
//
// Windows' <windows.h> defines CreateDirectory and DeleteFile as macros: do
// not include it in a file that includes this header.
#pragma once

#include <tessera/journal.h>

#include <atomic>
#include <vector>

namespace Tessera {
namespace Service {

enum JrnlFileType : std::uint32_t { JRNL_FILE_REGULAR = 1, JRNL_FILE_DISK = 2 };

class TESSERA_EXPORT JrnlDirEntry : public BaseJrnlEntry {
public:
    static const std::int32_t OP_CODE = 4;
    JrnlDirEntry(const Ref<Logger>& logger, bool isCreate, const std::string& path)
        : BaseJrnlEntry(logger), _isCreate(isCreate), _path(path) {}

    bool IsCreate() const noexcept { return _isCreate; }
    const std::string& GetPath() const noexcept { return _path; }

    std::int32_t GetOpCode() const override { return OP_CODE; }
    int Serialize(Writer* writer) const override;
    bool IsValid() const override { return !_path.empty(); }
    int Deserialize(const char* buffer, std::size_t len) override;
    std::string Describe() const override;

    static BaseJrnlEntry* Create(const Ref<Logger>& logger, const char* buffer, std::size_t len);

private:
    bool _isCreate;
    std::string _path;
};

class TESSERA_EXPORT JrnlFileEntry : public BaseJrnlEntry {
public:
    static const std::int32_t OP_CODE = 5;
    JrnlFileEntry(const Ref<Logger>& logger, bool isCreate, std::uint32_t fileType,
                  const std::string& path);

    bool IsCreate() const noexcept { return _isCreate; }
    std::uint32_t GetFileType() const noexcept { return _fileType; }
    const std::string& GetPath() const noexcept { return _path; }

    std::int32_t GetOpCode() const override { return OP_CODE; }
    int Serialize(Writer* writer) const override;
    bool IsValid() const override { return !_path.empty(); }
    int Deserialize(const char* buffer, std::size_t len) override;
    std::string Describe() const override;

    static BaseJrnlEntry* Create(const Ref<Logger>& logger, const char* buffer, std::size_t len);

private:
    bool _isCreate;
    std::uint32_t _fileType;
    std::string _path;
};

// A named value of the service's own: the timestamp, the name, then the value
// as each value type writes it.
class TESSERA_EXPORT BaseJrnlFieldEntry : public BaseJrnlEntry {
public:
    BaseJrnlFieldEntry(const Ref<Logger>& logger, const std::string& fieldName)
        : BaseJrnlEntry(logger), _fieldName(fieldName) {}

    const std::string& GetFieldName() const noexcept { return _fieldName; }
    // The value as printed.
    virtual std::string GetValueText() const = 0;

    int Serialize(Writer* writer) const override;
    bool IsValid() const override { return !_fieldName.empty(); }
    int Deserialize(const char* buffer, std::size_t len) override;
    std::string Describe() const override;

protected:
    virtual int SerializeValue(Writer* writer) const = 0;
    virtual int DeserializeValue(const char* buffer, std::size_t len) = 0;
    // The fewest bytes the value takes.
    virtual std::size_t GetMinValueSize() const = 0;

private:
    std::string _fieldName;
};

class TESSERA_EXPORT JrnlIntFieldEntry : public BaseJrnlFieldEntry {
public:
    static const std::int32_t OP_CODE = 6;
    JrnlIntFieldEntry(const Ref<Logger>& logger, const std::string& name, std::uint32_t value)
        : BaseJrnlFieldEntry(logger, name), _value(value) {}
    std::uint32_t GetValue() const noexcept { return _value; }
    std::int32_t GetOpCode() const override { return OP_CODE; }
    std::string GetValueText() const override;
    static BaseJrnlEntry* Create(const Ref<Logger>& logger, const char* buffer, std::size_t len);

protected:
    int SerializeValue(Writer* writer) const override;
    int DeserializeValue(const char* buffer, std::size_t len) override;
    std::size_t GetMinValueSize() const override { return 4; }

private:
    std::uint32_t _value;
};

class TESSERA_EXPORT JrnlStringFieldEntry : public BaseJrnlFieldEntry {
public:
    static const std::int32_t OP_CODE = 7;
    JrnlStringFieldEntry(const Ref<Logger>& logger, const std::string& name,
                         const std::string& value)
        : BaseJrnlFieldEntry(logger, name), _value(value) {}
    const std::string& GetValue() const noexcept { return _value; }
    std::int32_t GetOpCode() const override { return OP_CODE; }
    std::string GetValueText() const override { return _value; }
    static BaseJrnlEntry* Create(const Ref<Logger>& logger, const char* buffer, std::size_t len);

protected:
    int SerializeValue(Writer* writer) const override;
    int DeserializeValue(const char* buffer, std::size_t len) override;
    std::size_t GetMinValueSize() const override { return 4; }

private:
    std::string _value;
};

class TESSERA_EXPORT JrnlLongFieldEntry : public BaseJrnlFieldEntry {
public:
    static const std::int32_t OP_CODE = 8;
    JrnlLongFieldEntry(const Ref<Logger>& logger, const std::string& name, std::int64_t value)
        : BaseJrnlFieldEntry(logger, name), _value(value) {}
    std::int64_t GetValue() const noexcept { return _value; }
    std::int32_t GetOpCode() const override { return OP_CODE; }
    std::string GetValueText() const override;
    static BaseJrnlEntry* Create(const Ref<Logger>& logger, const char* buffer, std::size_t len);

protected:
    int SerializeValue(Writer* writer) const override;
    int DeserializeValue(const char* buffer, std::size_t len) override;
    std::size_t GetMinValueSize() const override { return 8; }

private:
    std::int64_t _value;
};

// One step of an unfinished journal that is still to be undone.
struct JrnlStepToUndo {
    EntryInsertionResult index;
    Ref<BaseJrnlEntry> entry;  // a JrnlDirEntry or JrnlFileEntry
};

// What a journal file holds, as read back by ReadJournalFile.
struct JrnlFileState {
    std::string path;
    JrnlHeader header;
    bool readable = false;               // the header and every entry could be read
    std::string failure;                 // why not, when not
    bool finished = false;               // an end entry is present
    bool success = false;                // what the last end entry says
    JrnlEntryList entries;               // every entry, in file order
    std::vector<JrnlStepToUndo> toUndo;  // steps not yet undone, newest first
    std::int64_t tornBytes = 0;          // bytes of a torn record at the end

    // No end entry, or an end entry that says failure.
    bool IsUnfinished() const { return !finished || !success; }
};

class TESSERA_EXPORT BasicFileOpsJournal : public BaseJournal {
public:
    // Fixes the journal directory for the process (created with its parents
    // when missing) and registers the entry creators. Again with the same
    // directory: true; with another: JrnlException. False when the directory
    // cannot be created.
    static bool Init(const std::string& directory, const Ref<Logger>& logger);
    // Unregisters the creators and forgets the directory.
    static bool Exit();
    // Codes 4, 5, 6, 8 and 7 besides the base codes.
    static void JrnlRegisterEntryCreators(JrnlEntryCreatorMap& table);
    static void JrnlUnregisterEntryCreators(JrnlEntryCreatorMap& table);
    static bool IS_VALID_FILE_TYPE(std::uint32_t type) {
        return type == JRNL_FILE_REGULAR || type == JRNL_FILE_DISK;
    }

    // A new journal whose header carries `jrnlType` and a copy of the client
    // data.
    BasicFileOpsJournal(const Ref<Logger>& logger, std::uint32_t jrnlType, const void* clientData,
                        std::uint32_t clientDataLen);
    // Reopens a journal file for recovery; a torn record at its end is cut
    // off (and logged) before anything is appended.
    BasicFileOpsJournal(const Ref<Logger>& logger, const std::string& jrnlFilePath);
    ~BasicFileOpsJournal() override;

    // The steps: each writes one entry and returns its index.
    EntryInsertionResult CreateDirectory(const std::string& path);
    EntryInsertionResult DeleteDirectory(const std::string& path);
    EntryInsertionResult CreateRegularFile(const std::string& path);
    EntryInsertionResult DeleteRegularFile(const std::string& path);
    EntryInsertionResult CreateDiskFile(const std::string& path);
    EntryInsertionResult DeleteDiskFile(const std::string& path);
    EntryInsertionResult AddIntFieldEntry(const std::string& name, std::uint32_t value);
    EntryInsertionResult AddStringFieldEntry(const std::string& name, const std::string& value);
    EntryInsertionResult AddLongFieldEntry(const std::string& name, std::int64_t value);

    // Records that the entry at `entry` was undone; returns the undo entry's
    // own index.
    EntryInsertionResult UndoEntry(EntryInsertionResult entry);
    // Appends the end entry; the journal then leaves the table of open
    // journals (its file stays until DeleteJournal).
    void Finish(bool success);

    // The journals of the journal directory that are unfinished, each read
    // back with its steps still to undo; journals that cannot be read are
    // listed too, with `readable` false.
    static void GetUnfinishedJournals(std::vector<JrnlFileState>& out);
    // Reads one journal file, whether or not Init was called. A record
    // longer than its fields (which the deserialisers treat as a broken
    // invariant) makes the file unreadable here instead.
    static void ReadJournalFile(const std::string& path, const Ref<Logger>& logger,
                                JrnlFileState& out);
    // "" unless the record's fields, as its length words declare them, end
    // before the record does (which the deserialisers treat as a broken
    // invariant); then why. `header` for the first record of a journal.
    // Unknown codes and records too short are left to the deserialisers'
    // exceptions.
    static std::string CheckRecordFit(const char* data, std::size_t len, bool header);
    // BaseJournal::PersistenceRecordToEntryCompat for records from outside:
    // a layout whose fields end early is a failed conversion (in the current
    // layout) or JrnlException "Record is corrupt -- journal might be
    // corrupt" (in the earlier one), never an assertion.
    static void RecordToEntryChecked(const JrnlEntryCreatorMap* cMap, const Ref<Logger>& logger,
                                     const PersistenceRecord& record, Ref<BaseJrnlEntry>& out);

    // BaseJournal:
    std::string GetJrnlId() const override { return _jrnlId; }
    void GetProvider(Ref<JrnlPersistenceProvider>& out) const override { out = _provider; }
    bool GetJournalAsList(JrnlEntryList& out) override;
    bool GetJournalHeader(JrnlHeader& out) override;
    std::string GetJournalDir() const override;
    void GetLogger(Ref<Logger>& out) const override { out = _logger; }
    int GetEntryCount() const override;
    void PrintJournal() override;
    JrnlEntryCreatorMap* GetEntryCreatorMap() const override;
    void DeleteJournal() override;

private:
    EntryInsertionResult Append(const BaseJrnlEntry& entry);
    bool ReadBack(JrnlHeader* header, JrnlEntryList* entries);

    static std::string _journalDir;
    static Ref<Logger> _defaultLogger;
    static JrnlEntryCreatorMap _jrnlEntryCreatorMap;
    static std::atomic<std::uint32_t> _journalCounter;

    Ref<Logger> _logger;
    std::string _jrnlId;
    Ref<JrnlPersistenceProvider> _provider;
    Ref<System::Mutex> _mutex;
    int _entryCount = 0;
    bool _listed = false;
};

}  // namespace Service
}  // namespace Tessera
