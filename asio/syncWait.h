// What the synchronous forms of the streams wait with: a completion handed
// over to the calling thread, and the end of the operation's time.
#pragma once

#include <tessera/exception.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace Tessera {
namespace System {

// Waits for a completion on the calling thread, for the synchronous forms.
class SyncWait {
public:
    void Done(std::size_t count, Exception* error) {
        std::lock_guard<std::mutex> hold(_lock);
        _count = count;
        if (error) _error.reset(error->Clone());
        _done = true;
        _changed.notify_one();
    }
    std::size_t Result() {
        std::unique_lock<std::mutex> hold(_lock);
        _changed.wait(hold, [this] { return _done; });
        if (_error) _error->Throw();
        return _count;
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    bool _done = false;
    std::size_t _count = 0;
    std::unique_ptr<Exception> _error;
};

// The end of a synchronous operation's time, in microseconds from now.
class Deadline {
public:
    explicit Deadline(std::int64_t timeoutUsec)
        : _infinite(timeoutUsec <= 0),
          _end(std::chrono::steady_clock::now() +
               std::chrono::microseconds(_infinite ? 0 : timeoutUsec)) {}
    // -1 without a limit, else what is left (0 once it has passed).
    std::int64_t Left() const {
        if (_infinite) return -1;
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            _end - std::chrono::steady_clock::now());
        return left.count() > 0 ? left.count() : 0;
    }

private:
    bool _infinite;
    std::chrono::steady_clock::time_point _end;
};

} // namespace System
} // namespace Tessera
