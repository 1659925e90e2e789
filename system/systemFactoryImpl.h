// The library's own system factory.
#pragma once

#include <tessera/system/system.h>

namespace Tessera {
namespace System {

class SystemFactoryImpl final : public ObjectImpl, public SystemFactory {
public:
    SystemFactoryImpl();
    ~SystemFactoryImpl() override;

    void CreateSimpleMutex(Ref<Mutex>& out) override;
    void CreateRWLock(RWLockableObject::LockMode mode, Ref<RWLock>& out) override;
    void CreateCondition(Ref<Condition>& out) override;
    // Made in asio/ (sockets, the pool) and in the platform folders (pipes).
    void CreateTCPClientSocket(Ref<TCPClientSocket>& out) override;
    void CreateTCPServerSocket(Ref<TCPServerSocket>& out) override;
    void CreateTCPClientSocket(ThreadPool* pool, Ref<TCPClientSocket>& out) override;
    void CreateTCPServerSocket(ThreadPool* pool, Ref<TCPServerSocket>& out) override;
    void CreateThreadPool(const Service::Config::View* config, Ref<ThreadPool>& out) override;
    void CreateNamedPipeClientStream(const std::string& name, bool waitIfBusy,
                                     Ref<NamedPipeClientStream>& out) override;
    void CreateNamedPipeServer(const std::string& name, std::int32_t maxInstances,
                               Ref<NamedPipeServer>& out) override;
    void CreateNamedPipeClientStream(ThreadPool* pool, const std::string& name, bool waitIfBusy,
                                     Ref<NamedPipeClientStream>& out) override;
    void CreateNamedPipeServer(ThreadPool* pool, const std::string& name, std::int32_t maxInstances,
                               Ref<NamedPipeServer>& out) override;
    void CreateConsoleWriter(Ref<Writer>& out) override;
    void CreateErrorWriter(Ref<Writer>& out) override;
    void CreateFileWriter(const std::string& path, const std::string& header, bool append,
                          Ref<Writer>& out) override;
    void CreateFileWriter(const std::string& path, bool append, Ref<Writer>& out) override;
    void CreateFileRoller(const std::string& directory, const std::string& name,
                          const std::string& extension, const std::string& header,
                          std::int32_t numFiles, std::uint32_t maxSize,
                          Ref<FileRoller>& out) override;
    void CreateFileRoller(const std::string& directory, const std::string& name,
                          const std::string& extension, const std::string& header,
                          const std::string& failureAction, std::int32_t numFiles,
                          std::uint32_t maxSize, Ref<FileRoller>& out) override;
    void CreateRolloverLogWriter(const std::string& directory, const std::string& name,
                                 std::int64_t maxSize, std::int32_t numFiles, bool append,
                                 Ref<Writer>& out) override;
    void CreateRolloverLogWriter(const std::string& directory, const std::string& name,
                                 std::int64_t maxSize, std::int32_t numFiles,
                                 const std::string& failureAction, bool append,
                                 Ref<Writer>& out) override;

    void CreateBacktrace(Ref<Backtrace>& out) override;
    void CreateQuickBacktrace(Ref<Backtrace>& out) override;
    void GetSharedLibrary(const std::string& path, Ref<SharedLibrary>& out) override;
    void GetFile(const std::string& path, Ref<File>& out) override;
    void GetFileHandle(const std::string& path, FileHandle::OpenMode mode,
                       Ref<FileHandle>& out) override;
    void GetTempDir(std::string& out) override;
    void CreateSysCommand(Ref<SysCommand>& out) override;
    void CreateSysCommand(const SysCommandSpec& spec, Ref<SysCommand>& out) override;
};

} // namespace System
} // namespace Tessera
