// The thread pool's pollable handles: a handle registered with a work item is
// waited on through the platform's poll wait on the I/O service; once it is
// ready, the work item goes to the task queue and the registration ends.

#include "asio/ThreadPoolAsio.h"

#include <tessera/assert.h>
#include <tessera/exception.h>

#include "system/platform/nativeError.h"
#include "system/platform/poll.h"

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
        const int error = Platform::CreatePollWait(_pool->GetIoService(), handle, item->wait);
        if (error != 0) {
            ThrowSystemError(
                error, MessageFormatter::ASPrint("Cannot wait on pollable handle %1", handle));
        }
        _items[handle] = item;
        std::vector<std::intptr_t> vecHandles;
        for (const auto& entry : _items) vecHandles.push_back(entry.first);
        TESSERA_ASSERT((int)vecHandles.size() <= _pool->_threadCtl->GetMaxPollables());
        item->wait->AsyncWait([this, item](bool ready) { Ready(item, ready); });
    }

    bool Unregister(std::intptr_t handle) {
        std::shared_ptr<PollableItem> item;
        {
            std::lock_guard<std::mutex> hold(_lock);
            auto it = _items.find(handle);
            if (it == _items.end()) return false;
            item = it->second;
            _items.erase(it);
            item->wait->Cancel();
        }
        return true;
    }

    void Clear() {
        std::lock_guard<std::mutex> hold(_lock);
        _closed = true;
        for (auto& entry : _items) entry.second->wait->Cancel();
        _items.clear();
    }

private:
    struct PollableItem {
        std::intptr_t handle = 0;
        WorkItem work;
        std::unique_ptr<Platform::PollWait> wait;
    };

    void Ready(const std::shared_ptr<PollableItem>& item, bool ready) {
        {
            std::lock_guard<std::mutex> hold(_lock);
            auto it = _items.find(item->handle);
            if (it == _items.end() || it->second != item) return; // unregistered
            _items.erase(it);
        }
        if (ready) _pool->Enqueue(_pool->_classes[WORK_TASK], item->work);
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
