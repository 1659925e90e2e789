// Placeholders until the pool and the streams land.

#include <tessera/exception.h>
#include <tessera/system/namedPipe.h>
#include <tessera/system/tcp.h>
#include <tessera/system/threadPool.h>

#include "system/systemFactoryImpl.h"

namespace Tessera {
namespace System {

void SystemFactoryImpl::CreateTCPClientSocket(Ref<TCPClientSocket>&) {
    throw NotSupportedException("TCP sockets are not built yet");
}
void SystemFactoryImpl::CreateTCPServerSocket(Ref<TCPServerSocket>&) {
    throw NotSupportedException("TCP sockets are not built yet");
}
void SystemFactoryImpl::CreateNamedPipeClientStream(const std::string&, bool,
                                                    Ref<NamedPipeClientStream>&) {
    throw NotSupportedException("Local pipes are not built yet");
}
void SystemFactoryImpl::CreateNamedPipeServer(const std::string&, std::int32_t,
                                              Ref<NamedPipeServer>&) {
    throw NotSupportedException("Local pipes are not built yet");
}

}  // namespace System
}  // namespace Tessera
