// A pipe's name on POSIX: a live server's is refused to a second server, who
// must not disturb it; a socket file left by a server that died (nobody holds
// its name's lock) is replaced by the next server.

#include <tessera/system/namedPipe.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>

using namespace Tessera;
using namespace Tessera::System;

TEST(PipeName, OneLiveServerAndDeadServersFilesReplaced) {
    const std::string name =
        GetLocalPipeName("tessera-dead-" + std::to_string(std::random_device{}()));
    // What a killed server leaves: a socket file that nobody listens on.
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, name.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(fd);
    struct stat st;
    ASSERT_EQ(stat(name.c_str(), &st), 0);

    Ref<NamedPipeServer> server;
    GetSystemFactory()->CreateNamedPipeServer(name, 4, server);
    // A second server is refused, and the first sees no client of it.
    Ref<NamedPipeServer> second;
    EXPECT_THROW(GetSystemFactory()->CreateNamedPipeServer(name, 4, second), SystemException);
    Ref<NamedPipeClientStream> client;
    GetSystemFactory()->CreateNamedPipeClientStream(name, false, client);
    Ref<Stream> accepted;
    server->Accept(accepted);
    client->Write("y", 1);
    char c = 0;
    ASSERT_EQ(accepted->Read(&c, 1), 1u) << "the server took another client first";
    EXPECT_EQ(c, 'y');
    server->Close();
    EXPECT_NE(stat(name.c_str(), &st), 0) << "the socket file stays after Close";
    EXPECT_NE(stat((name + ".lock").c_str(), &st), 0) << "the lock file stays after Close";
}
