// Local pipes between processes of one machine, as streams (stream.h).
//
// On Windows these are named pipes, named "\\.\pipe\<name>". On POSIX they are
// Unix domain stream sockets bound to a path in the file system; the server
// makes the socket file and removes it when closed, and holds a lock on
// "<path>.lock" meanwhile, which the system drops when the process dies: a
// second server of a live name is refused (SystemException), a socket file
// left by a dead server is replaced. GetLocalPipeName gives a suitable name on each:
//
//     std::string name = GetLocalPipeName("myservice-control");
//     Ref<NamedPipeServer> server;
//     GetSystemFactory()->CreateNamedPipeServer(name, 4, server);
//     ...                                                 // in the client
//     Ref<NamedPipeClientStream> client;
//     GetSystemFactory()->CreateNamedPipeClientStream(name, true, client);
//
// A pipe stream behaves as a TCP stream does: reads of 0 at the end, the
// failures of stream.h, callbacks on the pool's I/O threads. One difference:
// Windows pipes have no half close, so ShutdownWrite there raises
// NotSupportedException (close the stream instead).
#pragma once

#include <tessera/api.h>
#include <tessera/functor.h>
#include <tessera/system/stream.h>

#include <string>

namespace Tessera {
namespace System {

class TESSERA_EXPORT NamedPipeClientStream : public Stream {};

class TESSERA_EXPORT NamedPipeServer : public virtual Object {
public:
    // The connected client's stream, or null with the exception.
    typedef Functor<void(NamedPipeServer*, Stream*, Exception*)> AcceptCallback;

    // Waits for the next client.
    virtual void Accept(Ref<Stream>& out) = 0;
    // Accepts the next client on the pool: `done` runs on an I/O thread with
    // it. One accept may be pending at a time.
    virtual void AsyncAccept(const AcceptCallback& done) = 0;
    virtual const std::string& GetName() const = 0;
    // Stops accepting; a pending accept fails with InvalidStateException.
    // Streams already accepted stay open.
    virtual void Close() = 0;
};

// "\\.\pipe\<base>" on Windows; a path for `base` in the temporary directory
// on POSIX.
TESSERA_EXPORT std::string GetLocalPipeName(const std::string& base);

} // namespace System
} // namespace Tessera
