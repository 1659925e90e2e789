// The HTTP service as the server benchmarks run it: one handler answering
// every path with a 13-byte body, on the port given (the benchmark pins the
// process to one core). At SIGTERM or SIGINT it prints how many distinct
// connections it answered ("connections served: N") and exits.

#include <tessera/config.h>
#include <tessera/http/httpSvc.h>
#include <tessera/http/request.h>
#include <tessera/http/response.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>

#include <unistd.h>

using namespace Tessera;

int main(int argc, char** argv) {
    const int port = argc > 1 ? std::atoi(argv[1]) : 8080;
    Http::HttpServiceSettings settings;
    settings.statisticsName = "";
    Ref<Http::HttpService> service;
    Http::CreateHttpService(settings, service);
    const std::string body = "Hello, World!";
    std::mutex lock;
    std::set<std::string> peers; // the connections answered, by their peer's address
    service->AddHandler(
        "/", true, [&](const Ref<Http::Request>& request, const Ref<Http::Response>& response) {
            {
                std::lock_guard<std::mutex> hold(lock);
                peers.insert(request->GetPeerName());
            }
            response->SetHeader("Content-Type", "text/plain");
            response->Send(body);
        });
    service->ListenTcp("127.0.0.1", static_cast<std::uint16_t>(port));
    std::printf("ready\n");
    std::fflush(stdout);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    int which = 0;
    sigwait(&signals, &which);
    service->Shutdown(1000 * 1000);
    std::lock_guard<std::mutex> hold(lock);
    std::printf("connections served: %zu\n", peers.size());
    return 0;
}
