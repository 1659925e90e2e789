// Doubles for the HTTP tests: a one-thread pool (tests/memoryStream.h has
// the stream over bytes in memory).
#pragma once

#include <tessera/exception.h>
#include <tessera/system/stream.h>
#include <tessera/system/threadPool.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace HttpTest {

using namespace Tessera;

// One worker thread runs everything queued, Defer included, in order.
class OneThreadPool : public ObjectImpl, public System::ThreadPool {
public:
    OneThreadPool() : _thread([this] { Run(); }) {}
    ~OneThreadPool() override { Shutdown(); }

    bool QueueWorkItem(const WorkItem& work, WorkType) override { return Post(work); }
    bool PostCompletion(const WorkItem& completion) override { return Post(completion); }
    bool Defer(const WorkItem& work) override {
        ++_defers;
        return Post(work);
    }
    void ScheduleTimer(std::int64_t, const WorkItem&, Ref<System::Timer>&) override {}
    void RegisterPollable(std::intptr_t, const WorkItem&) override {}
    bool UnregisterPollable(std::intptr_t) override { return false; }
    void Enlist() override {}
    void Delist() override {}
    bool IsEnlisted() const override { return std::this_thread::get_id() == _thread.get_id(); }
    void SetConfig(const Service::Config::View&) override {}
    void GetStatistics(std::vector<Statistic>&) const override {}
    void Shutdown() override {
        {
            std::lock_guard<std::mutex> hold(_lock);
            if (_stopping) return;
            _stopping = true;
        }
        _wake.notify_all();
        _thread.join();
    }

    int Defers() const { return _defers.load(); }

private:
    bool Post(const WorkItem& work) {
        {
            std::lock_guard<std::mutex> hold(_lock);
            if (_stopping) return false;
            _queue.push_back(work);
        }
        _wake.notify_all();
        return true;
    }
    void Run() {
        std::unique_lock<std::mutex> hold(_lock);
        for (;;) {
            _wake.wait(hold, [this] { return _stopping || !_queue.empty(); });
            if (_queue.empty()) return;
            WorkItem work = _queue.front();
            _queue.pop_front();
            hold.unlock();
            work();
            hold.lock();
        }
    }

    std::mutex _lock;
    std::condition_variable _wake;
    std::deque<WorkItem> _queue;
    bool _stopping = false;
    std::atomic<int> _defers{0};
    std::thread _thread;
};

} // namespace HttpTest
