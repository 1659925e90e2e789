// An HTTP service: a handler registered on a path prefix answers JSON, on a
// loopback port; the program then asks it over its own connection, as curl
// would, and shuts the service down.

#include <tessera/exception.h>
#include <tessera/http/httpSvc.h>
#include <tessera/http/request.h>
#include <tessera/http/response.h>
#include <tessera/system/system.h>
#include <tessera/system/tcp.h>
#include <tessera/system/threadPool.h>

#include <cstdio>
#include <string>

using namespace Tessera;
using namespace Tessera::Http;

int main() {
    HttpServiceSettings settings; // the defaults; FromConfig reads them from a node
    Ref<HttpService> service;
    CreateHttpService(settings, service);
    service->AddHandler(
        "/api/", true, [](const Ref<Request>& request, const Ref<Response>& response) {
            const auto& query = request->GetQueryParameters();
            const auto name = query.find("name");
            response->SetHeader("Content-Type", "application/json");
            response->Send("{\"path\":\"" + request->GetPath() + "\",\"hello\":\"" +
                           (name == query.end() ? std::string("world") : name->second) + "\"}\n");
        });
    const std::uint16_t port = service->ListenTcp("127.0.0.1", 0);
    std::printf("listening on 127.0.0.1:%u\n", static_cast<unsigned>(port));

    int status = 1;
    try {
        Ref<System::TCPClientSocket> client;
        System::GetSystemFactory()->CreateTCPClientSocket(client);
        client->Connect("127.0.0.1", port, 10 * 1000 * 1000);
        client->SetTimeouts(10 * 1000 * 1000, 10 * 1000 * 1000);
        const std::string request =
            "GET /api/greeting?name=Tessera HTTP/1.1\r\nHost: localhost\r\nConnection: "
            "close\r\n\r\n";
        client->Write(request.data(), request.size());
        std::string response;
        char buffer[1024];
        while (std::size_t n = client->Read(buffer, sizeof buffer)) response.append(buffer, n);
        std::printf("%s", response.c_str());
        status = response.compare(0, 15, "HTTP/1.1 200 OK") == 0 ? 0 : 1;
    } catch (const Exception& e) {
        std::printf("request failed: %s\n", e.what());
    }
    service->Shutdown(5 * 1000 * 1000);
    System::GetThreadPool()->Shutdown();
    return status;
}
