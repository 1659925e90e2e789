// The system factory: the one place where operating-system objects are made.
//
// Components never construct platform classes themselves; they ask the
// process-wide factory, which fills a Ref out-parameter. A program (a test,
// typically) may install its own factory with SetSystemFactory before the
// library first needs one; otherwise the library's own is created on first use.
#pragma once

#include <tessera/api.h>
#include <tessera/config.h>
#include <tessera/object.h>
#include <tessera/system/condition.h>
#include <tessera/system/file.h>
#include <tessera/system/mutex.h>
#include <tessera/system/rwLock.h>
#include <tessera/system/sharedLibrary.h>
#include <tessera/system/stacktrace.h>
#include <tessera/writer.h>

#include <cstdint>

#include <string>

namespace Tessera {
namespace System {

// A captured stack of the calling thread. ToString() is its text, one frame a
// line, innermost first:
//     #0 0x00007f3a1c2b4d10 in Tessera::Throwable::Throwable(...) at main/exception.cpp:41
// A full backtrace names the functions (and, where debug information exists,
// the source lines); a quick one gives the module and offset of each frame
// only, which is cheaper and safe where the symbol machinery is not.
class TESSERA_EXPORT Backtrace : public virtual Object {
public:
    virtual const Stacktrace& GetStacktrace() const = 0;
};

// A writer over numbered files that starts a new file when one is full, for
// data a program keeps beside its log (measurements, audit records):
//     <directory>/<name><extension>      the current file
//     <directory>/<name>-1<extension>    the newest closed one
//     ...                                up to <name>-<numFiles-1><extension>
// It rolls like the rollover log writer below: oldest deleted, the others
// renamed one number up, each Write one unbuffered append; a header, when
// given, is the first bytes of every new file. Made by
// SystemFactory::CreateFileRoller.
class TESSERA_EXPORT FileRoller : public Writer {
public:
    // The path of the current file, UTF-8.
    virtual std::string GetPath() const = 0;
    // Closes the current file, rolls the files over and begins a new one now,
    // whatever its size. After Close it raises InvalidStateException.
    virtual void Roll() = 0;
};

class NamedPipeClientStream;
class NamedPipeServer;
class TCPClientSocket;
class TCPServerSocket;
class ThreadPool;
class SysCommand;
struct SysCommandSpec;

class TESSERA_EXPORT SystemFactory : public virtual Object {
public:
    // An unconnected TCP socket and an unbound listening one (tcp.h), their
    // I/O on the process's thread pool, or on `pool` (one made by
    // CreateThreadPool: a component's or a test's own; any other kind of pool
    // raises InvalidArgumentException). Connections a listener accepts run
    // on its pool.
    virtual void CreateTCPClientSocket(Ref<TCPClientSocket>& out) = 0;
    virtual void CreateTCPServerSocket(Ref<TCPServerSocket>& out) = 0;
    virtual void CreateTCPClientSocket(ThreadPool* pool, Ref<TCPClientSocket>& out) = 0;
    virtual void CreateTCPServerSocket(ThreadPool* pool, Ref<TCPServerSocket>& out) = 0;
    // Locks and conditions (mutex.h, rwLock.h, condition.h), free.
    virtual void CreateSimpleMutex(Ref<Mutex>& out) = 0;
    virtual void CreateRWLock(RWLockableObject::LockMode mode, Ref<RWLock>& out) = 0;
    virtual void CreateCondition(Ref<Condition>& out) = 0;
    // A thread pool (threadPool.h) from the "ThreadPool" node `config` (null
    // or a view of nothing: the defaults), started at once. Bad limits raise
    // InvalidArgumentException.
    virtual void CreateThreadPool(const Service::Config::View* config, Ref<ThreadPool>& out) = 0;
    // Writers of standard output and standard error; each Write is one
    // system call.
    virtual void CreateConsoleWriter(Ref<Writer>& out) = 0;
    virtual void CreateErrorWriter(Ref<Writer>& out) = 0;
    // A writer over the file at `path` (UTF-8), created when absent; with
    // `append` false an existing file is emptied first. `header` is written
    // first whenever the writer begins an empty file (a new one, or one just
    // emptied), e.g. the column names of a CSV file; an empty header writes
    // nothing, and a file that already has content gets no second header.
    // Every Write reaches the end of the file in one unbuffered write, so Flush
    // has nothing to do; after Close a Write raises InvalidStateException. The
    // file is not inherited by child processes. A path whose directory does not
    // exist raises FileIONotFoundException, one that may not be written
    // FileIOPermissionDeniedException, any other failure FileIOException, each
    // naming the path.
    //     Ref<Writer> csv;
    //     GetSystemFactory()->CreateFileWriter("calls.csv", "time,caller,ms\n", true, csv);
    virtual void CreateFileWriter(const std::string& path, const std::string& header, bool append,
                                  Ref<Writer>& out) = 0;
    // The same without a header.
    virtual void CreateFileWriter(const std::string& path, bool append, Ref<Writer>& out) = 0;
    // A file roller (FileRoller above) in `directory` (created when missing)
    // over files named `name` + `extension` (say "samples" and ".csv"), with
    // `header` ("" for none) at the top of each new file; a Write that would
    // take the current file past `maxSize` bytes first rolls over, and at most
    // `numFiles` files are kept (at least 2, else InvalidArgumentException
    // "At least two files required. %1 specified"). The current file is
    // continued when it exists. `failureAction` is that of the rollover log
    // writer below, "continue" in the first variant.
    virtual void CreateFileRoller(const std::string& directory, const std::string& name,
                                  const std::string& extension, const std::string& header,
                                  std::int32_t numFiles, std::uint32_t maxSize,
                                  Ref<FileRoller>& out) = 0;
    virtual void CreateFileRoller(const std::string& directory, const std::string& name,
                                  const std::string& extension, const std::string& header,
                                  const std::string& failureAction, std::int32_t numFiles,
                                  std::uint32_t maxSize, Ref<FileRoller>& out) = 0;
    // A log writer over numbered files <name>.log, <name>-1.log, ... in
    // `directory` (created when missing): it starts a new file when a record
    // would take the current one past `maxSize` bytes and keeps at most
    // `numFiles` files (at least 2), deleting the oldest. With `append` false
    // a non-empty current file is first rolled over, so the writer begins a new
    // one. `failureAction` says what a failed roll-over does: "continue" (the
    // first variant) writes on to the current file and tries again later,
    // "abort" ends the process through PanicExit, "break" stops in an attached
    // debugger and otherwise continues. Each record reaches the system in one
    // unbuffered write; the files are not inherited by child processes.
    virtual void CreateRolloverLogWriter(const std::string& directory, const std::string& name,
                                         std::int64_t maxSize, std::int32_t numFiles, bool append,
                                         Ref<Writer>& out) = 0;
    virtual void CreateRolloverLogWriter(const std::string& directory, const std::string& name,
                                         std::int64_t maxSize, std::int32_t numFiles,
                                         const std::string& failureAction, bool append,
                                         Ref<Writer>& out) = 0;
    // The backtrace of the calling thread, the factory's own frames left out.
    virtual void CreateBacktrace(Ref<Backtrace>& out) = 0;
    virtual void CreateQuickBacktrace(Ref<Backtrace>& out) = 0;
    // Loads a shared library (sharedLibrary.h).
    virtual void GetSharedLibrary(const std::string& path, Ref<SharedLibrary>& out) = 0;
    // Files (file.h): a path object, which touches nothing until used; an
    // open handle on `path` (a missing file opened for reading raises
    // FileIONotFoundException); the directory for temporary files.
    virtual void GetFile(const std::string& path, Ref<File>& out) = 0;
    virtual void GetFileHandle(const std::string& path, FileHandle::OpenMode mode,
                               Ref<FileHandle>& out) = 0;
    virtual void GetTempDir(std::string& out) = 0;
    // Local pipes (namedPipe.h). The client connects to the server listening
    // at `name`; with `waitIfBusy` it waits while every instance of the pipe
    // is taken (Windows) or the server's queue is full (POSIX) instead of
    // failing. A server that does not exist raises SystemException naming the
    // pipe. The server takes at most `maxInstances` clients at once on
    // Windows (1 to 255); on POSIX that is the length of its queue of clients
    // not yet accepted.
    virtual void CreateNamedPipeClientStream(const std::string& name, bool waitIfBusy,
                                             Ref<NamedPipeClientStream>& out) = 0;
    virtual void CreateNamedPipeServer(const std::string& name, std::int32_t maxInstances,
                                       Ref<NamedPipeServer>& out) = 0;
    // The same on `pool`, as for TCP.
    virtual void CreateNamedPipeClientStream(ThreadPool* pool, const std::string& name,
                                             bool waitIfBusy, Ref<NamedPipeClientStream>& out) = 0;
    virtual void CreateNamedPipeServer(ThreadPool* pool, const std::string& name,
                                       std::int32_t maxInstances, Ref<NamedPipeServer>& out) = 0;
    // Child processes (sysCommand.h): a command to be given its
    // specification later (SetSpec), or one ready to Invoke.
    virtual void CreateSysCommand(Ref<SysCommand>& out) = 0;
    virtual void CreateSysCommand(const SysCommandSpec& spec, Ref<SysCommand>& out) = 0;
};

// The process-wide factory: the one installed with SetSystemFactory, else the
// library's own, created on first use. Never null.
TESSERA_EXPORT SystemFactory* GetSystemFactory();

// Installs `factory` for the rest of the process. The library keeps a
// reference to every factory it was given and never drops it, so code that
// fetched the previous factory may go on using it.
TESSERA_EXPORT void SetSystemFactory(SystemFactory* factory);

} // namespace System
} // namespace Tessera
