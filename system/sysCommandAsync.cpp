// Asynchronous invocations of a command: the child's end and its output
// watched on the pool, with a time-out.

#include "system/sysCommandImpl.h"

#include <tessera/assert.h>

#include "system/platform/nativeError.h"

#include <chrono>
#include <memory>
#include <thread>

namespace Tessera {
namespace System {

using Service::Logger;

void SysCommandImpl::AsyncInvoke(const Callback& done, std::int64_t timeoutSecs) {
    if (done.IsNull()) {
        throw InvalidArgumentException("AsyncInvoke: no completion callback");
    }
    std::lock_guard<std::mutex> output(_outputLock);
    std::lock_guard<std::mutex> in(_stdinLock);
    Synchronized hold(this);
    Start(SC_INVK_ASYNC);
    _callback = done;
    try {
        if (timeoutSecs >= 0) {
            const std::uint64_t sn = _currentSn;
            Ref<SysCommandImpl> self(this);
            GetThreadPool()->ScheduleTimer(
                timeoutSecs * 1000000, [self, sn] { self->OnTimeout(sn); }, _timeoutTimer);
        }
        Arm();
    } catch (...) {
        Abandon();
        throw;
    }
}

void SysCommandImpl::Arm() {
    const std::uint64_t sn = _currentSn;
    const std::uint64_t armId = ++_armId;
    Ref<SysCommandImpl> self(this);
    std::vector<Platform::NativeHandle> handles;
    const Platform::NativeError error = Platform::GetWatchHandles(_pump, handles);
    if (error != Platform::kSuccess) {
        ThrowSystemError(error, Platform::kWatchCall);
    }
    ThreadPool* pool = GetThreadPool();
    if (handles.empty()) {
        pool->ScheduleTimer(
            10000, [self, sn, armId] { self->OnReady(sn, armId); }, _lookAgainTimer);
        return;
    }
    for (Platform::NativeHandle h : handles) {
        pool->RegisterPollable(h, [self, sn, armId] { self->OnReady(sn, armId); });
        _watched.push_back(h);
    }
}

void SysCommandImpl::Disarm() {
    ++_armId;
    ThreadPool* pool = GetThreadPool();
    for (Platform::NativeHandle h : _watched) {
        pool->UnregisterPollable(h);
    }
    _watched.clear();
    if (_lookAgainTimer) {
        _lookAgainTimer->Cancel();
        _lookAgainTimer = nullptr;
    }
}

void SysCommandImpl::Abandon() {
    Disarm();
    if (_timeoutTimer) {
        _timeoutTimer->Cancel();
        _timeoutTimer = nullptr;
    }
    if (_jobless || (_group == Platform::kNoHandle && !_child.ownGroup)) {
        Platform::KillChild(_child, 1);
    } else {
        Platform::KillChildGroup(_group, _child, 1);
    }
    bool exited = false;
    int status = 0;
    bool signaled = false;
    for (int i = 0; i < 1000 && !exited; ++i) {
        if (Platform::PollChildExit(_child, exited, status, signaled) != Platform::kSuccess) {
            break;
        }
        if (!exited) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    Platform::ReleaseChildEnds(_pump);
    Platform::ReleaseChild(_child);
    _processState = SC_NOT_RUNNING;
    _invokeState = SC_INVK_NONE;
    _completed = false;
    _callback.Clear();
}

void SysCommandImpl::OnReady(std::uint64_t sn, std::uint64_t armId) {
    Callback done;
    std::unique_ptr<Exception> failure;
    {
        std::lock_guard<std::mutex> output(_outputLock);
        Synchronized hold(this);
        TESSERA_ASSERT(sn <= _currentSn);
        if (sn != _currentSn || armId != _armId || _invokeState != SC_INVK_ASYNC) {
            return; // a late call of an earlier invocation or arming
        }
        try {
            Disarm();
            Platform::PumpResult result;
            do {
                const Platform::NativeError error =
                    Platform::PumpOutput(_pump, &_child, 0, _out.data, _err.data, result);
                if (error != Platform::kSuccess) {
                    ThrowSystemError(error, Platform::kPumpCall);
                }
                _out.ended = _out.ended || result.outEnded;
                _err.ended = _err.ended || result.errEnded;
            } while (!result.timedOut && !result.childExited &&
                     !(result.outEnded && result.errEnded));
            done = _callback;
            CheckExit();
            if (_invokeState == SC_INVK_ASYNC) {
                done.Clear();
                Arm();
                return;
            }
            _callback.Clear();
            if (_timeoutTimer) {
                _timeoutTimer->Cancel();
                _timeoutTimer = nullptr;
            }
        } catch (const Exception& e) {
            failure.reset(e.Clone());
            done = _callback;
            Abandon();
        }
    }
    done(this, failure.get());
}

void SysCommandImpl::OnTimeout(std::uint64_t sn) {
    Callback done;
    {
        std::lock_guard<std::mutex> output(_outputLock);
        Synchronized hold(this);
        if (sn != _currentSn || _invokeState != SC_INVK_ASYNC) {
            return; // the invocation it was set for is over
        }
        TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_WARNING, "AsyncInvoke: timeout occured");
        done = _callback;
        _timeoutTimer = nullptr;
        Abandon();
    }
    TimeoutException timedOut("Operation timed out");
    done(this, &timedOut);
}

} // namespace System
} // namespace Tessera
