// Where a journal's records are kept.
//
// A journal (journal.h) hands each record to a JrnlPersistenceProvider and
// reads them back through it; it never sees the store. The library's provider,
// JrnlFilePersistenceProvider, keeps one journal as one file:
//
//     offset 0   23 bytes   "KIVORA.JOURNAL.VER.1.0." (no terminator)
//     offset 23   4 bytes   length N of record 1, unsigned, little-endian
//     offset 27   N bytes   payload of record 1
//     ...                   further records (length, payload) to the end
//
// There is no record count, end marker or checksum: the records end where
// the file ends. Records are only appended; the file is closed between
// operations, so no handle is held while the journal is idle.
//
// Durability: WriteRecord writes the length word and the payload in one write,
// flushes the file to stable storage (fdatasync, FlushFileBuffers) and closes
// it before returning; a newly created file is flushed together with its
// directory. A record whose WriteRecord returned survives a crash of the
// process and of the machine, as far as the disk honours a flush. A crash
// during WriteRecord can leave a torn record at the end (its length word
// promising more bytes than follow); readers report it as the end of the
// journal, and CutTornTail removes it before the journal is appended to again.
//
// A file whose first 23 bytes are not the magic is never read, appended to,
// or deleted as a journal.
//
// Thread safety: a provider is used by one thread at a time (its journal's
// mutex orders the calls); distinct providers are independent.
#pragma once

#include <tessera/api.h>
#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/object.h>
#include <tessera/system/file.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Tessera {
namespace Service {

// One record's payload, an owned copy.
class TESSERA_EXPORT PersistenceRecord {
public:
    // Copies `len` bytes; `len` is not 0.
    PersistenceRecord(const char* data, std::int64_t len);
    PersistenceRecord(const PersistenceRecord& other);
    PersistenceRecord& operator=(const PersistenceRecord& other);
    ~PersistenceRecord();

    // Replaces the bytes by a copy of `data`.
    void SetData(const char* data, std::int64_t len);
    const char* GetData() const noexcept { return _data; }
    std::int64_t GetDataLen() const noexcept { return _dataLen; }

private:
    char* _data;
    std::int64_t _dataLen;
};

using PersistenceRecordList = std::list<PersistenceRecord>;

class TESSERA_EXPORT JrnlPersistenceProvider : public virtual Object {
public:
    // Appends one payload; raises JrnlException.
    virtual void WriteRecord(const char* data, std::uint32_t len) = 0;
    // Reads the next record into a new buffer (the caller frees it with
    // delete[]); true when a whole record was read. At the normal end of the
    // journal it returns false with `*isEof` set; a record cut short also sets
    // `*isEof` and returns false.
    virtual bool ReadRecord(char** buffer, std::uint32_t* len, bool* isEof) = 0;
    // Positions reading at the first record.
    virtual void Rewind() = 0;
    // The store's identity: for the file provider, its path.
    virtual std::string GetJournalID() = 0;
    // Removes the store, when it is a journal.
    virtual void DeleteJournal() = 0;
    // Every record, in order; `entryLst` must be empty.
    virtual void ReadAllRecords(PersistenceRecordList& entryLst) = 0;
    // Removes a torn record from the end of the store (see the top of this
    // file); returns the count of bytes removed, 0 when the end was whole.
    virtual std::int64_t CutTornTail() = 0;
};

// What JrnlFilePersistenceProvider::ScanFile finds in a journal file.
struct JrnlFileScan {
    bool isJournal = false;  // the first 23 bytes are the magic
    std::int64_t fileSize = 0;
    std::int64_t validLength = 0;             // the end of the last whole record
    std::vector<std::int64_t> recordOffsets;  // where each whole record's length word is
};

class TESSERA_EXPORT JrnlFilePersistenceProvider : public ObjectImpl,
                                                   public JrnlPersistenceProvider {
public:
    static const char* const FILE_MAGIC;  // "KIVORA.JOURNAL.VER.1.0."
    static const std::int64_t FILE_MAGIC_LEN = 23;

    // With `create` the file is created (an existing file is an error, so
    // that no journal is ever overwritten), the
    // magic written and flushed with the directory, and the file closed; a
    // null logger means the default logger.
    JrnlFilePersistenceProvider(const std::string& filepath, const Ref<Logger>& logger,
                                bool create);
    ~JrnlFilePersistenceProvider() override;

    // JrnlPersistenceProvider:
    void WriteRecord(const char* data, std::uint32_t len) override;
    bool ReadRecord(char** buffer, std::uint32_t* len, bool* isEof) override;
    void Rewind() override;
    std::string GetJournalID() override { return _filepath; }
    void DeleteJournal() override;
    void ReadAllRecords(PersistenceRecordList& entryLst) override;
    std::int64_t CutTornTail() override;

    // Whether the file begins with the magic (read, never written).
    bool IsJournalFile();

    // The journal files of a directory (entries that are not directories and
    // begin with the magic), as dir + separator + name, sorted by name. The
    // separator is the platform's: '\' on Windows, '/' on POSIX.
    static bool GetJournalFiles(const std::string& qvxJournalDir,
                                std::vector<std::string>& fileList);
    // Deletes the journal files of a directory; returns how many were deleted.
    static int DeleteJournalFiles(const std::string& dir);
    // Walks a file's records without reading their payloads.
    static void ScanFile(const std::string& filepath, JrnlFileScan& out);

private:
    void OpenForRead();
    void OpenForWrite(bool create);
    void WriteMagic();
    bool ReadMagic(std::string& text);
    bool SeekToFirstEntry();
    void CloseFile() noexcept;
    // Logs under "[JrnlFilePersistenceProvider] %1".
    void LogIo(const std::string& text);
    // The short-read/-write text: "Read only 3 of 4requested bytes.\n".
    static std::string ShortText(const char* verb, std::size_t done, std::size_t requested);

    std::string _filepath;
    Ref<Logger> _logger;
    Ref<System::FileHandle> _file;
    bool _openForWrite = false;
    bool _openForRead = false;
    std::int64_t _fileHeaderLen = 0;
};

}  // namespace Service
}  // namespace Tessera
