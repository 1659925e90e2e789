// Waits for descriptors through poll, on one thread of the back end that
// serves every wait of the process. Generic POSIX code only.

#include "system/platform/handleWait.h"

#include "posix/backgroundThread.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

class Poller;

class DescriptorWait final : public HandleWait {
public:
    DescriptorWait(Poller* poller, std::uint64_t id) : _poller(poller), _id(id) {}
    ~DescriptorWait() override;

private:
    Poller* const _poller;
    const std::uint64_t _id;
};

// The thread and its table of waits. Made on first use and never destroyed,
// so that nothing it uses goes away under it at exit; a process made by fork
// has no copy of the thread and makes its own.
class Poller {
public:
    static Poller* Instance(NativeError& error) {
        static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
        static Poller* current = nullptr;
        pthread_mutex_lock(&lock);
        if (current == nullptr || current->_process != getpid()) {
            Poller* poller = new Poller;
            error = poller->Start();
            if (error != kSuccess) {
                delete poller;
                poller = nullptr;
            }
            current = poller;
        }
        Poller* poller = current;
        pthread_mutex_unlock(&lock);
        return poller;
    }

    std::uint64_t Add(int fd, short events, std::function<void()> ready) {
        std::lock_guard<std::mutex> hold(_lock);
        const std::uint64_t id = ++_lastId;
        _waits.emplace(id, Entry{fd, events, std::move(ready)});
        Wake();
        return id;
    }

    void Remove(std::uint64_t id) {
        std::unique_lock<std::mutex> hold(_lock);
        if (_waits.erase(id) != 0) {
            Wake(); // not to poll a descriptor that may be closed next
            return;
        }
        // Fired already; its callback may still be running on the thread.
        if (pthread_equal(pthread_self(), _thread)) return;
        _idle.wait(hold, [&] { return _running != id; });
    }

private:
    struct Entry {
        int fd;
        short events;
        std::function<void()> ready;
    };

    ~Poller() {
        if (_wake[0] >= 0) ::close(_wake[0]);
        if (_wake[1] >= 0) ::close(_wake[1]);
    }

    NativeError Start() {
        if (::pipe2(_wake, O_CLOEXEC | O_NONBLOCK) != 0) return errno;
        return StartBackgroundThread(&Poller::Main, this);
    }

    void Wake() {
        const char one = 0;
        // A full pipe has a wake-up pending already.
        while (::write(_wake[1], &one, 1) < 0 && errno == EINTR) {}
    }

    static void* Main(void* self) {
        static_cast<Poller*>(self)->Run();
        return nullptr;
    }

    void Run() {
        std::vector<pollfd> fds;
        std::vector<std::uint64_t> ids;
        std::unique_lock<std::mutex> hold(_lock);
        _thread = pthread_self();
        for (;;) {
            fds.assign(1, pollfd{_wake[0], POLLIN, 0});
            ids.assign(1, 0);
            for (const auto& wait : _waits) {
                fds.push_back(pollfd{wait.second.fd, wait.second.events, 0});
                ids.push_back(wait.first);
            }
            hold.unlock();
            const int got = ::poll(fds.data(), fds.size(), -1);
            hold.lock();
            if (got <= 0) continue; // EINTR; nothing else can fail here
            if (fds[0].revents != 0) {
                char drain[64];
                while (::read(_wake[0], drain, sizeof drain) > 0) {}
            }
            for (std::size_t i = 1; i < fds.size(); ++i) {
                if (fds[i].revents == 0) continue;
                // Removed meanwhile: its descriptor may be another's by now.
                auto it = _waits.find(ids[i]);
                if (it == _waits.end()) continue;
                std::function<void()> ready = std::move(it->second.ready);
                _waits.erase(it);
                _running = ids[i];
                hold.unlock();
                ready();
                ready = nullptr;
                hold.lock();
                _running = 0;
                _idle.notify_all();
            }
        }
    }

    const pid_t _process = getpid();
    std::mutex _lock;
    std::condition_variable _idle;
    std::map<std::uint64_t, Entry> _waits;
    std::uint64_t _lastId = 0;
    std::uint64_t _running = 0; // the wait whose callback runs now
    pthread_t _thread{};
    int _wake[2] = {-1, -1};
};

DescriptorWait::~DescriptorWait() { _poller->Remove(_id); }

} // namespace

NativeError WaitForHandle(WaitableHandle handle, Readiness readiness, std::function<void()> ready,
                          std::unique_ptr<HandleWait>& out) {
    NativeError error = kSuccess;
    Poller* poller = Poller::Instance(error);
    if (poller == nullptr) return error;
    const short events = readiness == Readiness::Read ? POLLIN : POLLOUT;
    const std::uint64_t id = poller->Add(static_cast<int>(handle), events, std::move(ready));
    out.reset(new DescriptorWait(poller, id));
    return kSuccess;
}

NativeError DuplicateWaitableHandle(WaitableHandle handle, WaitableHandle& out) {
    const int fd = ::fcntl(static_cast<int>(handle), F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return errno;
    out = fd;
    return kSuccess;
}

void CloseWaitableHandle(WaitableHandle handle) { ::close(static_cast<int>(handle)); }

} // namespace Platform
} // namespace System
} // namespace Tessera
