// Journals: append-only logs of the steps of one multi-step operation, kept so
// that after a crash the steps already taken can be found and undone.
//
// A journal's first record is its header (JrnlHeader); every other record is
// one entry: a 32-bit operation code, an 8-byte timestamp, then the entry's
// own fields. Integers are little-endian; a string is a 32-bit length that
// counts its terminating zero byte, the characters and the zero byte.
//
//     code  class                 fields after the timestamp   payload
//     1     JrnlBeginEntry        none                          12 bytes
//     2     JrnlEndEntry          success flag, 1 byte          13 bytes
//     3     JrnlUndoFormerEntry   index of the undone entry     16 bytes
//
// A table of creators, one per operation code, turns records back into typed
// entries; each journal class has one (GetEntryCreatorMap). Entries are
// numbered from 0 in the order they are added (EntryInsertionResult); the
// header is not an entry.
//
// A journal without an end entry, or whose end entry says failure, marks an
// unfinished operation: its entries say what was done and its undo-former
// entries which of those steps were already undone.
//
// Deserialisers check lengths before reading and never read past a record: a
// record too short for its fields raises JrnlException. A record longer than
// its fields is a broken invariant and stops the process (assertion).
//
// Thread safety: the table of open journals is guarded by its own mutex;
// each journal orders its appends under a mutex of its own. Entries are
// plain values, used by one thread at a time.
#pragma once

#include <tessera/api.h>
#include <tessera/jrnlPersistenceProvider.h>
#include <tessera/logger.h>
#include <tessera/object.h>
#include <tessera/system/mutex.h>
#include <tessera/writer.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace Tessera {
namespace Service {

// The position of an entry in its journal, from 0.
using EntryInsertionResult = int;

class TESSERA_EXPORT JrnlHeader {
public:
    static const std::uint32_t JRNL_VERSION = 2;
    static const std::uint32_t JRNL_MAGIC = 0xFAB5D00Du;

    JrnlHeader();
    JrnlHeader(std::uint32_t jrnlType, const void* clientData, std::uint32_t clientDataLen,
               const std::string& jrnlId);

    // Writes the header's payload; returns its length, L + S + 20. An empty
    // id raises JrnlException "Serializing Invalid Header".
    int Serialize(Writer* writer) const;
    // Reads a header from exactly `len` bytes; returns the bytes consumed.
    int Deserialize(const char* buffer, std::size_t len);
    // The id is not empty and the client data is present exactly when its
    // length is not 0.
    bool IsValid() const;
    // Both valid, with the same version and magic.
    bool Agrees(const JrnlHeader& other) const;

    std::uint32_t GetVersion() const noexcept { return _version; }
    std::uint32_t GetMagic() const noexcept { return _magic; }
    std::uint32_t GetJournalType() const noexcept { return _jrnlType; }
    const std::string& GetClientData() const noexcept { return _clientData; }
    const std::string& GetJournalId() const noexcept { return _jrnlId; }
    void SetVersion(std::uint32_t version) noexcept { _version = version; }
    void SetMagic(std::uint32_t magic) noexcept { _magic = magic; }

private:
    std::uint32_t _version;
    std::uint32_t _magic;
    std::uint32_t _jrnlType;
    std::uint32_t _clientDataLen;
    std::string _clientData;
    std::string _jrnlId;
};

class TESSERA_EXPORT BaseJrnlEntry : public ObjectImpl {
public:
    // The largest record payload a journal writes (255 KiB).
    static const int MAX_JOURNALDATA_SIZE = 261120;

    // The timestamp starts as the current time in seconds since 1970.
    explicit BaseJrnlEntry(const Ref<Logger>& logger);
    BaseJrnlEntry(const BaseJrnlEntry& other);
    BaseJrnlEntry& operator=(const BaseJrnlEntry& other);
    ~BaseJrnlEntry() override;

    virtual std::int32_t GetOpCode() const = 0;
    // Writes the entry (timestamp first, not the code); returns the count.
    virtual int Serialize(Writer* writer) const = 0;
    virtual bool IsValid() const;
    // Logs Describe() at verbose level.
    virtual void Print() const;
    // Reads the entry from exactly `len` bytes behind the code; returns the
    // count consumed.
    virtual int Deserialize(const char* buffer, std::size_t len) = 0;
    // The printed text, as "\t\tPrinting JrnlEndEntry: success: true".
    virtual std::string Describe() const = 0;

    std::int64_t GetTimestamp() const noexcept { return _timestamp; }
    void SetTimestamp(std::int64_t timestamp) noexcept { _timestamp = timestamp; }
    Logger* GetLogger() const noexcept { return _logger.Get(); }

protected:
    int BaseSerialize(Writer* writer) const;
    int BaseDeserialize(const char* buffer, std::size_t size);
    static int SerializePrimitive(Writer* writer, const void* bytes, int length);
    static int SerializeString(Writer* writer, const std::string& text);
    static int DeserializePrimitive(const char* buffer, std::size_t size, void* output,
                                    std::size_t length);
    static int DeserializeString(const char* buffer, std::size_t size, std::string& output);

private:
    Ref<Logger> _logger;
    std::int64_t _timestamp;
};

// Makes the entry a record holds, from the payload behind the operation code.
using JrnlEntryCreator = BaseJrnlEntry* (*)(const Ref<Logger>& logger, const char* buffer,
                                            std::size_t len);
using JrnlEntryCreatorMap = std::map<std::int32_t, JrnlEntryCreator>;
using JrnlEntryList = std::list<Ref<BaseJrnlEntry>>;

class TESSERA_EXPORT JrnlBeginEntry : public BaseJrnlEntry {
public:
    static const std::int32_t OP_CODE = 1;
    explicit JrnlBeginEntry(const Ref<Logger>& logger) : BaseJrnlEntry(logger) {}

    std::int32_t GetOpCode() const override { return OP_CODE; }
    int Serialize(Writer* writer) const override;
    int Deserialize(const char* buffer, std::size_t len) override;
    std::string Describe() const override;

    static BaseJrnlEntry* Create(const Ref<Logger>& logger, const char* buffer, std::size_t len);
};

class TESSERA_EXPORT JrnlEndEntry : public BaseJrnlEntry {
public:
    static const std::int32_t OP_CODE = 2;
    JrnlEndEntry(const Ref<Logger>& logger, bool success)
        : BaseJrnlEntry(logger), _success(success) {}

    bool GetSuccess() const noexcept { return _success; }

    std::int32_t GetOpCode() const override { return OP_CODE; }
    int Serialize(Writer* writer) const override;
    int Deserialize(const char* buffer, std::size_t len) override;
    std::string Describe() const override;

    static BaseJrnlEntry* Create(const Ref<Logger>& logger, const char* buffer, std::size_t len);

private:
    bool _success;
};

class TESSERA_EXPORT JrnlUndoFormerEntry : public BaseJrnlEntry {
public:
    static const std::int32_t OP_CODE = 3;
    JrnlUndoFormerEntry(const Ref<Logger>& logger, EntryInsertionResult undone)
        : BaseJrnlEntry(logger), _undone(static_cast<std::uint32_t>(undone)) {}

    EntryInsertionResult GetUndoneEntry() const noexcept {
        return static_cast<EntryInsertionResult>(_undone);
    }

    std::int32_t GetOpCode() const override { return OP_CODE; }
    int Serialize(Writer* writer) const override;
    int Deserialize(const char* buffer, std::size_t len) override;
    std::string Describe() const override;

    static BaseJrnlEntry* Create(const Ref<Logger>& logger, const char* buffer, std::size_t len);

private:
    std::uint32_t _undone;
};

class TESSERA_EXPORT BaseJournal : public ObjectImpl {
public:
    virtual std::string GetJrnlId() const = 0;
    virtual void GetProvider(Ref<JrnlPersistenceProvider>& out) const = 0;
    // Every entry, in file order; false (the failure logged as
    // "Journal failure: %1") when the journal cannot be read back.
    virtual bool GetJournalAsList(JrnlEntryList& out) = 0;
    virtual bool GetJournalHeader(JrnlHeader& out) = 0;
    virtual std::string GetJournalDir() const = 0;
    virtual void GetLogger(Ref<Logger>& out) const = 0;
    // How many entries the journal holds.
    virtual int GetEntryCount() const = 0;
    // Logs the header and every entry at verbose level.
    virtual void PrintJournal() = 0;
    virtual JrnlEntryCreatorMap* GetEntryCreatorMap() const = 0;
    // Removes the journal's store; JrnlException "Failed to delete the
    // journal" when that fails.
    virtual void DeleteJournal();
    // Append an end entry, or an undo-former entry naming `undone`.
    virtual void AppendEndEntry(const Ref<Logger>& logger,
                                const Ref<JrnlPersistenceProvider>& provider, bool success);
    virtual void AppendUndoFormerEntry(const Ref<Logger>& logger,
                                       const Ref<JrnlPersistenceProvider>& provider,
                                       EntryInsertionResult undone);

    static void RegisterEntryCreator(JrnlEntryCreatorMap& table, std::int32_t opCode,
                                     JrnlEntryCreator f);
    static void UnregisterEntryCreator(JrnlEntryCreatorMap& table, std::int32_t opCode);
    // Codes 3, 1 and 2.
    static void BaseJrnlRegisterEntryCreators(JrnlEntryCreatorMap& table);
    static void BaseJrnlUnregisterEntryCreators(JrnlEntryCreatorMap& table);

    static void PersistenceRecordToHeader(const PersistenceRecord& record, JrnlHeader& out);
    // The entry a record holds, through this journal's creator table.
    void PersistenceRecordToEntry(const PersistenceRecord& record, Ref<BaseJrnlEntry>& out);
    // The same through a given table and logger.
    static void PersistenceRecordToEntry(const JrnlEntryCreatorMap* cMap, const Ref<Logger>& logger,
                                         const PersistenceRecord& record, Ref<BaseJrnlEntry>& out);
    // As above, retrying a record that fails in the earlier layout whose
    // timestamp was 32 bits (widened by zero extension, logged as
    // "Compensating for a change in timestamp size.").
    static void PersistenceRecordToEntryCompat(const JrnlEntryCreatorMap* cMap,
                                               const Ref<Logger>& logger,
                                               const PersistenceRecord& record,
                                               Ref<BaseJrnlEntry>& out);
    // Writes the code and the entry as one record; JrnlException when the
    // payload exceeds MAX_JOURNALDATA_SIZE or the store refuses it.
    static void AppendEntry(const Ref<JrnlPersistenceProvider>& provider,
                            const BaseJrnlEntry& entry);

protected:
    BaseJournal() = default;
    ~BaseJournal() override;

    // Lists or unlists a journal in the table of open journals.
    static void ListJournal(const std::string& id, BaseJournal* journal);
    static void UnlistJournal(const std::string& id, const BaseJournal* journal);
    static bool IsListed(const std::string& id);
    static std::size_t CountListed();
    static void EnsureMapMutex();

    static std::map<std::string, BaseJournal*> _jrnlMap;
    static Ref<System::Mutex> _jrnlMapMutex;

private:
    static bool GetInt(const std::string& id, Ref<BaseJournal>& out);
};

}  // namespace Service
}  // namespace Tessera
