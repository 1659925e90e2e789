// No descriptor of a stream, listener or pool survives an exec.

#include <tessera/system/namedPipe.h>
#include <tessera/system/system.h>
#include <tessera/system/tcp.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>

#include <set>
#include <thread>

using namespace Tessera;
using namespace Tessera::System;

namespace {

// The open descriptors that an exec would keep.
std::set<int> InheritedDescriptors() {
    std::set<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return fds;
    while (dirent* entry = readdir(dir)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == dirfd(dir)) continue;
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) fds.insert(fd);
    }
    closedir(dir);
    return fds;
}

} // namespace

TEST(StreamInherit, SocketsAndPipesAreCloseOnExec) {
    const std::set<int> before = InheritedDescriptors();
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("localhost", 0, 4, true);
    Ref<TCPClientSocket> client;
    GetSystemFactory()->CreateTCPClientSocket(client);
    Ref<TCPSocket> accepted;
    std::thread acceptor([&] { server->Accept(accepted); });
    client->Connect("localhost", server->GetPort(), 5 * 1000 * 1000);
    acceptor.join();

    const std::string name = GetLocalPipeName("tessera-inherit-test");
    Ref<NamedPipeServer> pipeServer;
    GetSystemFactory()->CreateNamedPipeServer(name, 4, pipeServer);
    Ref<NamedPipeClientStream> pipeClient;
    GetSystemFactory()->CreateNamedPipeClientStream(name, true, pipeClient);
    Ref<Stream> pipeAccepted;
    pipeServer->Accept(pipeAccepted);

    EXPECT_EQ(InheritedDescriptors(), before);
    pipeServer->Close();
}
