// The thread pool's pollable handles: a duplicate of a handle registered with
// a work item is waited on through the platform's handle wait; once it is
// ready, the work item goes to the task queue and the registration ends.

#include "asio/ThreadPoolAsio.h"
#include "asio/pipeHandle.h"

#include <tessera/assert.h>
#include <tessera/exception.h>

#include "system/platform/handleWait.h"
#include "system/platform/nativeError.h"

#include <map>

namespace Tessera {
namespace System {

class ThreadPoolAsio::PollContainer {
public:
    explicit PollContainer(ThreadPoolAsio* pool) : _pool(pool) {}

    void Register(std::intptr_t handle, const WorkItem& work) {
        std::lock_guard<std::mutex> hold(_lock);
        if (_closed) throw InvalidStateException("The thread pool is shut down");
        if (_items.count(handle) != 0) {
            throw AlreadyExistsException(
                MessageFormatter::ASPrint("Pollable handle %1 is already registered", handle));
        }
        const int maxPollables = _pool->_threadCtl->GetMaxPollables();
        if (static_cast<int>(_items.size()) >= maxPollables) {
            throw FullException(MessageFormatter::ASPrint(
                "At most %1 handles may be polled at once", maxPollables));
        }
        auto item = std::make_shared<PollableItem>();
        item->handle = handle;
        item->work = work;
        // The duplicate lets the caller close the handle as soon as the
        // registration ends, whatever the wait still does with it.
        Platform::NativeError error = Platform::DuplicateWaitableHandle(handle, item->duplicate);
        if (error == Platform::kSuccess) {
            const std::weak_ptr<PollableItem> weak = item;
            error = PostWhenReady(
                _pool->GetIoService(), item->duplicate, Platform::Readiness::Read,
                [this, weak] { Ready(weak); }, item->wait);
        }
        if (error != Platform::kSuccess) {
            ThrowSystemError(
                error, MessageFormatter::ASPrint("Cannot wait on pollable handle %1", handle));
        }
        _items[handle] = item;
    }

    bool Unregister(std::intptr_t handle) {
        std::shared_ptr<PollableItem> item;
        {
            std::lock_guard<std::mutex> hold(_lock);
            auto it = _items.find(handle);
            if (it == _items.end()) return false;
            item = it->second;
            _items.erase(it);
        }
        return true; // `item` goes here, and its wait ends
    }

    void Clear() {
        std::map<std::intptr_t, std::shared_ptr<PollableItem>> items;
        std::lock_guard<std::mutex> hold(_lock);
        _closed = true;
        items.swap(_items);
    }

private:
    struct PollableItem {
        ~PollableItem() {
            wait.reset(); // first the wait, then the handle it waits on
            if (duplicate != kNoHandle) Platform::CloseWaitableHandle(duplicate);
        }

        static constexpr Platform::WaitableHandle kNoHandle = -1;
        std::intptr_t handle = 0;
        WorkItem work;
        Platform::WaitableHandle duplicate = kNoHandle;
        std::unique_ptr<Platform::HandleWait> wait;
    };

    void Ready(const std::weak_ptr<PollableItem>& weak) {
        std::shared_ptr<PollableItem> item;
        {
            std::lock_guard<std::mutex> hold(_lock);
            item = weak.lock();
            if (!item) return; // unregistered
            auto it = _items.find(item->handle);
            if (it == _items.end() || it->second != item) return;
            _items.erase(it);
        }
        _pool->Enqueue(_pool->_classes[WORK_TASK], item->work);
    }

    ThreadPoolAsio* const _pool;
    std::mutex _lock;
    std::map<std::intptr_t, std::shared_ptr<PollableItem>> _items;
    bool _closed = false;
};

void ThreadPoolAsio::PollContainerDelete::operator()(PollContainer* polls) const noexcept {
    delete polls;
}

void ThreadPoolAsio::OpenPollables() { _polls.reset(new PollContainer(this)); }

void ThreadPoolAsio::ClosePollables() { _polls->Clear(); }

void ThreadPoolAsio::RegisterPollable(std::intptr_t handle, const WorkItem& work) {
    _polls->Register(handle, work);
}

bool ThreadPoolAsio::UnregisterPollable(std::intptr_t handle) { return _polls->Unregister(handle); }

} // namespace System
} // namespace Tessera
