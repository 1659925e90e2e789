// The journal file: the magic, then length-prefixed records, appended one
// write at a time, flushed, and closed again.

#include <tessera/assert.h>
#include <tessera/jrnlPersistenceProvider.h>
#include <tessera/system/system.h>

#include <cstring>

namespace Tessera {
namespace Service {

namespace {

using System::FileHandle;

// Levels: failures to open, then the magic and seek failures, then the
// details of reads and writes.
constexpr Logger::LogLevel kOpenLevel = Logger::LOG_ERROR;
constexpr Logger::LogLevel kFormatLevel = Logger::LOG_WARNING;
constexpr Logger::LogLevel kIoLevel = Logger::LOG_INFO;

std::string Quoted(const std::string& path) { return "\"" + path + "\""; }

enum class ReadStatus { OK, END, SHORT, FAILED };

// Reads until `length` bytes are in or the file ends.
ReadStatus ReadFully(FileHandle& file, char* buffer, std::size_t length, std::size_t& done,
                     std::string& error) {
    done = 0;
    try {
        while (done < length) {
            const std::size_t n = file.Read(buffer + done, length - done);
            if (n == 0) break;
            done += n;
        }
    } catch (const FileIOException& e) {
        error = e.what();
        return ReadStatus::FAILED;
    }
    TESSERA_ASSERT(done <= length);
    if (done == length) return ReadStatus::OK;
    return done == 0 ? ReadStatus::END : ReadStatus::SHORT;
}

std::uint32_t LoadLittle32(const char* p) {
    const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
    return static_cast<std::uint32_t>(u[0]) | static_cast<std::uint32_t>(u[1]) << 8 |
           static_cast<std::uint32_t>(u[2]) << 16 | static_cast<std::uint32_t>(u[3]) << 24;
}

void StoreLittle32(char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

Ref<Logger> OrDefault(const Ref<Logger>& logger) {
    if (!logger.IsNull()) return logger;
    Ref<Logger> out;
    GetDefaultLogger(out);
    return out;
}

std::string Join(const std::string& dir, const std::string& name) {
    std::string path = dir;
    const char separator = System::GetPathSeparator();
    if (!path.empty() && path.back() != separator && path.back() != '/') path += separator;
    return path + name;
}

} // namespace

// ---- PersistenceRecord ----

PersistenceRecord::PersistenceRecord(const char* data, std::int64_t len)
    : _data(nullptr), _dataLen(0) {
    TESSERA_ASSERT(len > 0);
    TESSERA_ASSERT(data && (len > 0));
    _data = new char[static_cast<std::size_t>(len)];
    std::memcpy(_data, data, static_cast<std::size_t>(len));
    _dataLen = len;
}

PersistenceRecord::PersistenceRecord(const PersistenceRecord& other)
    : PersistenceRecord(other._data, other._dataLen) {}

PersistenceRecord& PersistenceRecord::operator=(const PersistenceRecord& other) {
    if (this != &other) SetData(other._data, other._dataLen);
    return *this;
}

PersistenceRecord::~PersistenceRecord() { delete[] _data; }

void PersistenceRecord::SetData(const char* data, std::int64_t len) {
    TESSERA_ASSERT(data && (len > 0));
    TESSERA_ASSERT(_dataLen > 0);
    char* copy = new char[static_cast<std::size_t>(len)];
    std::memcpy(copy, data, static_cast<std::size_t>(len));
    delete[] _data;
    _data = copy;
    _dataLen = len;
}

// ---- JrnlFilePersistenceProvider ----

const char* const JrnlFilePersistenceProvider::FILE_MAGIC = "KIVORA.JOURNAL.VER.1.0.";

JrnlFilePersistenceProvider::JrnlFilePersistenceProvider(const std::string& filepath,
                                                         const Ref<Logger>& logger, bool create)
    : _filepath(filepath), _logger(OrDefault(logger)) {
    TESSERA_ASSERT(!filepath.empty());
    if (create) {
        OpenForWrite(true);
        CloseFile();
    }
}

JrnlFilePersistenceProvider::~JrnlFilePersistenceProvider() {
    if (_openForWrite || _openForRead) CloseFile();
    _openForWrite = false;
    _openForRead = false;
}

void JrnlFilePersistenceProvider::CloseFile() noexcept {
    if (!_file.IsNull()) {
        try {
            _file->Close();
        } catch (const Exception&) {
            // A close after a flush loses nothing; the handle is gone anyway.
        }
        _file = nullptr;
    }
    _openForWrite = false;
    _openForRead = false;
}

void JrnlFilePersistenceProvider::LogIo(const std::string& text) {
    TESSERA_LOG(_logger, kIoLevel, "[JrnlFilePersistenceProvider] %1", text);
}

std::string JrnlFilePersistenceProvider::ShortText(const char* verb, std::size_t done,
                                                   std::size_t requested) {
    return std::string(verb) + " only " + std::to_string(done) + " of " +
           std::to_string(requested) + "requested bytes.\n";
}

void JrnlFilePersistenceProvider::OpenForRead() {
    TESSERA_ASSERT(!_openForRead);
    TESSERA_ASSERT(!_filepath.empty());
    TESSERA_ASSERT(!_openForWrite);
    try {
        System::GetSystemFactory()->GetFileHandle(_filepath, FileHandle::OPEN_READ, _file);
    } catch (const FileIOException& e) {
        TESSERA_LOG(_logger, kOpenLevel, "[QvxJournal]: Error opening file %1 for read. %2.\n",
                    _filepath, e.what());
        throw JrnlException("Failed to open " + Quoted(_filepath) + " for read");
    }
}

void JrnlFilePersistenceProvider::OpenForWrite(bool create) {
    if (_openForWrite) return;
    TESSERA_ASSERT(!_filepath.empty());
    TESSERA_ASSERT(!_openForRead);
    try {
        System::GetSystemFactory()->GetFileHandle(
            _filepath, create ? FileHandle::OPEN_CREATE : FileHandle::OPEN_UPDATE, _file);
    } catch (const FileIOException& e) {
        CloseFile();
        TESSERA_LOG(_logger, kOpenLevel, "Error opening journal file %1 for write: %2.", _filepath,
                    e.what());
        throw JrnlException("Failed to open " + Quoted(_filepath) + " for write: " + e.what());
    }
    if (create) {
        WriteMagic();
        // The new name is made durable with the directory that holds it.
        Ref<System::File> file;
        System::GetSystemFactory()->GetFile(_filepath, file);
        Ref<System::File> dir;
        System::GetSystemFactory()->GetFile(file->GetParent(), dir);
        try {
            dir->SyncDirectory();
        } catch (const FileIOException& e) {
            CloseFile();
            throw JrnlException("Failed to write header to " + Quoted(_filepath) + ": " + e.what());
        }
    } else {
        if (!SeekToFirstEntry()) {
            TESSERA_LOG(_logger, kFormatLevel,
                        "[QvxJournal]: File %1 is not a valid journal file.%2.\n", _filepath, "");
            CloseFile();
            throw JrnlException("Not a journal file: " + _filepath);
        }
        try {
            _file->Seek(0, FileHandle::FROM_END);
        } catch (const FileIOException& e) {
            TESSERA_LOG(_logger, kFormatLevel,
                        "[QvxJournal]: Failed to seek to end of file %1. %2.\n", _filepath,
                        e.what());
            CloseFile();
            throw JrnlException("Can not seek to the of file: " + _filepath);
        }
    }
    _openForWrite = true;
}

void JrnlFilePersistenceProvider::WriteMagic() {
    std::string logged;
    try {
        _file->Write(FILE_MAGIC, static_cast<std::size_t>(FILE_MAGIC_LEN));
        _file->Flush();
    } catch (const FileIOException& e) {
        logged = std::string("Error ") + "writing" + " file. " + e.what() + ".";
    }
    if (!logged.empty()) {
        LogIo(logged);
        CloseFile();
        throw JrnlException("Failed to write header to " + Quoted(_filepath) + ": " + logged);
    }
    _fileHeaderLen = FILE_MAGIC_LEN;
}

bool JrnlFilePersistenceProvider::ReadMagic(std::string& text) {
    const std::size_t expectedHeaderLen = static_cast<std::size_t>(FILE_MAGIC_LEN);
    char buffer[FILE_MAGIC_LEN];
    std::size_t bytesRead = 0;
    std::string error;
    switch (ReadFully(*_file, buffer, expectedHeaderLen, bytesRead, error)) {
    case ReadStatus::OK:
        TESSERA_ASSERT(bytesRead == expectedHeaderLen);
        text.assign(buffer, bytesRead);
        return true;
    case ReadStatus::FAILED:
        LogIo(std::string("Error ") + "reading" + " file. " + error + ".");
        return false;
    case ReadStatus::SHORT: LogIo(ShortText("Read", bytesRead, expectedHeaderLen)); return false;
    case ReadStatus::END: LogIo("Got EOF while reading file"); return false;
    }
    return false;
}

bool JrnlFilePersistenceProvider::SeekToFirstEntry() {
    if (_openForWrite || _openForRead) return true;
    if (_fileHeaderLen == 0) {
        std::string text;
        if (!ReadMagic(text) || text != FILE_MAGIC) return false;
        _fileHeaderLen = FILE_MAGIC_LEN;
        return true;
    }
    try {
        _file->Seek(_fileHeaderLen, FileHandle::FROM_BEGIN);
    } catch (const FileIOException& e) {
        TESSERA_LOG(_logger, kFormatLevel, "[QvxJournal]: Failed to seek to first entry %1. %2.\n",
                    _filepath, e.what());
        return false;
    }
    return true;
}

void JrnlFilePersistenceProvider::WriteRecord(const char* data, std::uint32_t len) {
    // Reading ends with the next write.
    if (_openForRead) CloseFile();
    OpenForWrite(false);
    TESSERA_ASSERT(_openForWrite && !_openForRead);
    const std::size_t total = static_cast<std::size_t>(len) + 4;
    std::unique_ptr<char[]> buffer(new char[total]);
    StoreLittle32(buffer.get(), len);
    if (len > 0) std::memcpy(buffer.get() + 4, data, len);
    std::string logged;
    try {
        _file->Write(buffer.get(), total);
        _file->Flush();
    } catch (const FileIOException& e) {
        logged = std::string("Error ") + "writing" + " file. " + e.what() + ".";
    }
    buffer.reset();
    if (!logged.empty()) LogIo(logged);
    CloseFile();
    if (!logged.empty()) throw JrnlException("Failed to write to " + _filepath + ": " + logged);
}

bool JrnlFilePersistenceProvider::ReadRecord(char** buffer, std::uint32_t* len, bool* isEof) {
    TESSERA_ASSERT(buffer && len && isEof);
    TESSERA_ASSERT(_openForRead);
    *isEof = false;
    char word[4];
    std::size_t done = 0;
    std::string error;
    switch (ReadFully(*_file, word, sizeof(word), done, error)) {
    case ReadStatus::OK: break;
    case ReadStatus::END: *isEof = true; return false;
    case ReadStatus::SHORT: LogIo(ShortText("Read", done, sizeof(word))); return false;
    case ReadStatus::FAILED:
        LogIo(std::string("Error ") + "reading" + " file. " + error + ".");
        return false;
    }
    const std::uint32_t n = LoadLittle32(word);
    // A length beyond the end of the file is a record cut short: said so
    // without first allocating what a corrupt length word asks for.
    std::int64_t position = 0, size = 0;
    try {
        position = _file->Seek(0, FileHandle::FROM_CURRENT);
        size = _file->GetSize();
    } catch (const FileIOException& e) {
        LogIo(std::string("Error ") + "reading" + " file. " + e.what() + ".");
        return false;
    }
    if (static_cast<std::int64_t>(n) > size - position) {
        LogIo("Got EOF while reading file");
        *isEof = true;
        return false;
    }
    std::unique_ptr<char[]> data(new char[static_cast<std::size_t>(n) + 1]);
    switch (ReadFully(*_file, data.get(), n, done, error)) {
    case ReadStatus::OK:
        data[n] = '\0';
        *buffer = data.release();
        *len = n;
        return true;
    case ReadStatus::END:
        LogIo("Got EOF while reading file");
        *isEof = true;
        return false;
    case ReadStatus::SHORT: LogIo(ShortText("Read", done, n)); return false;
    case ReadStatus::FAILED:
        LogIo(std::string("Error ") + "reading" + " file. " + error + ".");
        return false;
    }
    return false;
}

void JrnlFilePersistenceProvider::Rewind() {
    TESSERA_ASSERT(!_filepath.empty());
    if (_openForWrite) CloseFile();
    if (!_openForRead) {
        OpenForRead();
        if (!SeekToFirstEntry()) {
            CloseFile();
            throw JrnlException("Not a journal file: " + _filepath);
        }
        _openForRead = true;
    }
    TESSERA_ASSERT(_fileHeaderLen > 0);
    TESSERA_ASSERT(_openForRead == true);
    try {
        _file->Seek(_fileHeaderLen, FileHandle::FROM_BEGIN);
    } catch (const FileIOException& e) {
        TESSERA_LOG(_logger, kFormatLevel, "[QvxJournal]: Failed to seek to end of file %1. %2.\n",
                    _filepath, e.what());
        throw JrnlException("Failed to rewind file: " + _filepath);
    }
}

void JrnlFilePersistenceProvider::ReadAllRecords(PersistenceRecordList& entryLst) {
    TESSERA_ASSERT(!_filepath.empty());
    TESSERA_ASSERT(entryLst.size() == 0);
    CloseFile();
    OpenForRead();
    if (!SeekToFirstEntry()) {
        CloseFile();
        throw JrnlException("Not a journal file: " + _filepath);
    }
    _openForRead = true;
    for (;;) {
        char* buffer = nullptr;
        std::uint32_t len = 0;
        bool isEof = false;
        if (!ReadRecord(&buffer, &len, &isEof)) {
            // A failed read that is not the end leaves nothing further to
            // trust: the list ends there.
            break;
        }
        std::unique_ptr<char[]> owned(buffer);
        if (len == 0) {
            CloseFile();
            throw JrnlException("Record of length 0 in journal file " + _filepath +
                                " -- journal might be corrupt");
        }
        entryLst.emplace_back(owned.get(), static_cast<std::int64_t>(len));
    }
    // Nothing is held open between operations.
    CloseFile();
}

bool JrnlFilePersistenceProvider::IsJournalFile() {
    if (_openForWrite || _openForRead) return true;
    Ref<FileHandle> file;
    try {
        System::GetSystemFactory()->GetFileHandle(_filepath, FileHandle::OPEN_READ, file);
    } catch (const FileIOException&) {
        return false;
    }
    _file = file;
    std::string text;
    const bool ok = ReadMagic(text) && text == FILE_MAGIC;
    CloseFile();
    if (ok) _fileHeaderLen = FILE_MAGIC_LEN;
    return ok;
}

void JrnlFilePersistenceProvider::DeleteJournal() {
    if (_filepath.empty()) {
        TESSERA_LOG(_logger, kIoLevel,
                    "[JrnlFilePersistenceProvider::DeleteJournal] File path empty.");
        return;
    }
    TESSERA_LOG(_logger, kIoLevel, "[JrnlFilePersistenceProvider::DeleteJournal] Deleting %1.",
                _filepath);
    CloseFile();
    if (!IsJournalFile()) {
        TESSERA_LOG(_logger, kFormatLevel,
                    "[JrnlFilePersistenceProvider::DeleteJournal] Journal File %1 invalid",
                    _filepath);
        return;
    }
    try {
        Ref<System::File> file;
        System::GetSystemFactory()->GetFile(_filepath, file);
        file->Delete();
        Ref<System::File> dir;
        System::GetSystemFactory()->GetFile(file->GetParent(), dir);
        dir->SyncDirectory();
    } catch (const FileIOException&) {
        TESSERA_LOG(_logger, kFormatLevel,
                    "[JrnlFilePersistenceProvider::DeleteJournal] Journal File %1 not deleted",
                    _filepath);
        return;
    }
    TESSERA_LOG(_logger, kIoLevel,
                "[JrnlFilePersistenceProvider::DeleteJournal] Journal File %1 deleted", _filepath);
}

void JrnlFilePersistenceProvider::ScanFile(const std::string& filepath, JrnlFileScan& out) {
    out = JrnlFileScan();
    Ref<FileHandle> file;
    System::GetSystemFactory()->GetFileHandle(filepath, FileHandle::OPEN_READ, file);
    out.fileSize = file->GetSize();
    char magic[FILE_MAGIC_LEN];
    std::size_t done = 0;
    std::string error;
    if (ReadFully(*file, magic, sizeof(magic), done, error) != ReadStatus::OK ||
        std::memcmp(magic, FILE_MAGIC, sizeof(magic)) != 0) {
        return;
    }
    out.isJournal = true;
    std::int64_t offset = FILE_MAGIC_LEN;
    while (out.fileSize - offset >= 4) {
        char word[4];
        file->Seek(offset, FileHandle::FROM_BEGIN);
        if (ReadFully(*file, word, sizeof(word), done, error) != ReadStatus::OK) break;
        const std::int64_t n = LoadLittle32(word);
        if (n > out.fileSize - offset - 4) break;
        out.recordOffsets.push_back(offset);
        offset += 4 + n;
    }
    out.validLength = offset;
}

std::int64_t JrnlFilePersistenceProvider::CutTornTail() {
    CloseFile();
    JrnlFileScan scan;
    try {
        ScanFile(_filepath, scan);
    } catch (const FileIOException& e) {
        throw JrnlException("Failed to open " + Quoted(_filepath) + " for read");
    }
    if (!scan.isJournal) throw JrnlException("Not a journal file: " + _filepath);
    const std::int64_t torn = scan.fileSize - scan.validLength;
    if (torn == 0) return 0;
    try {
        Ref<FileHandle> file;
        System::GetSystemFactory()->GetFileHandle(_filepath, FileHandle::OPEN_UPDATE, file);
        file->Truncate(scan.validLength);
        file->Flush();
        file->Close();
    } catch (const FileIOException& e) {
        throw JrnlException("Failed to cut the torn record off " + Quoted(_filepath) + ": " +
                            e.what());
    }
    TESSERA_LOG(_logger, Logger::LOG_WARNING,
                "Cut off a torn record of %1 bytes at offset %2 of journal file %3", torn,
                scan.validLength, _filepath);
    return torn;
}

bool JrnlFilePersistenceProvider::GetJournalFiles(const std::string& qvxJournalDir,
                                                  std::vector<std::string>& fileList) {
    TESSERA_ASSERT(!qvxJournalDir.empty());
    TESSERA_ASSERT(fileList.size() == 0);
    std::vector<System::File::Entry> entries;
    try {
        Ref<System::File> dir;
        System::GetSystemFactory()->GetFile(qvxJournalDir, dir);
        dir->List(entries);
    } catch (const FileIOException& e) {
        TESSERA_LOG(DefaultLogger(), kOpenLevel, "Cannot list journal directory %1: %2",
                    qvxJournalDir, e.what());
        return false;
    }
    for (const System::File::Entry& entry : entries) {
        if (entry.isDirectory) continue;
        const std::string path = Join(qvxJournalDir, entry.name);
        Ref<JrnlFilePersistenceProvider> provider(
            new JrnlFilePersistenceProvider(path, nullptr, false));
        if (provider->IsJournalFile()) fileList.push_back(path);
    }
    return true;
}

int JrnlFilePersistenceProvider::DeleteJournalFiles(const std::string& dir) {
    std::vector<std::string> files;
    if (!GetJournalFiles(dir, files)) return 0;
    int deleted = 0;
    for (const std::string& filepath : files) {
        TESSERA_ASSERT(!filepath.empty());
        Ref<JrnlFilePersistenceProvider> provider(
            new JrnlFilePersistenceProvider(filepath, nullptr, false));
        provider->DeleteJournal();
        Ref<System::File> file;
        System::GetSystemFactory()->GetFile(filepath, file);
        if (!file->Exists()) ++deleted;
    }
    return deleted;
}

} // namespace Service
} // namespace Tessera
