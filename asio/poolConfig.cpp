// The thread pool's configuration after construction (SetConfig: limits may
// grow, never shrink) and its statistics.

#include "asio/ThreadPoolAsio.h"

#include <tessera/exception.h>

namespace Tessera {
namespace System {

using Service::Logger;

void ThreadPoolAsio::SetConfig(const Service::Config::View& config) {
    Hold hold(*this);
    WorkClass& io = _classes[WORK_IO];
    WorkClass& task = _classes[WORK_TASK];
    const int taskMax =
        config.GetInt("TaskMax", task.max.load()) + config.GetInt("TaskMaxCorrection", 0);
    const int taskMin = config.GetInt("TaskMin", task.min.load());
    const int ioMax = config.GetInt("IoMax", io.max.load()) + config.GetInt("IoMaxCorrection", 0);
    const int ioMin = config.GetInt("IoMin", io.min.load());
    if (taskMax < task.max.load()) {
        throw InvalidArgumentException(MessageFormatter::ASPrint(
            "Reducing TaskMax from %1 to %2 is not supported.", task.max.load(), taskMax));
    }
    if (taskMin > taskMax) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("TaskMin %1 is greater than TaskMax %2", taskMin, taskMax));
    }
    if (ioMax < io.max.load()) {
        throw InvalidArgumentException(MessageFormatter::ASPrint(
            "Reducing IoMax from %1 to %2 is not supported.", io.max.load(), ioMax));
    }
    if (ioMin > ioMax) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("IoMin %1 is greater than IoMax %2", ioMin, ioMax));
    }
    if (ioMin < 0 || taskMin < 0) {
        throw InvalidArgumentException("A minimum thread count is negative");
    }
    io.min = ioMin;
    io.max = ioMax;
    task.min = taskMin;
    task.max = taskMax;
    TESSERA_LOG(_log, Logger::LOG_INFO,
                "[SetConfig] Thread info: IoMin: %1, IoMax: %2, TaskMin: %3, TaskMax: %4", ioMin,
                ioMax, taskMin, taskMax);
    if (_shutDown) return;
    for (WorkClass& c : _classes) {
        while (c.running.load() < c.min.load()) StartThreadLocked(c);
    }
}

void ThreadPoolAsio::GetStatistics(std::vector<Statistic>& out) const {
    const WorkClass& io = _classes[WORK_IO];
    const WorkClass& task = _classes[WORK_TASK];
    out.clear();
    out.push_back({"IOThreads", io.running.load()});
    out.push_back({"MaxIOThreads", io.max.load()});
    out.push_back({"MaxTotalThreads", static_cast<std::int64_t>(io.max.load()) + task.max.load()});
    out.push_back({"MaxWorkerThreads", task.max.load()});
    out.push_back({"RunningThreads", io.busy.load() + task.busy.load()});
    out.push_back({"TimeMapSize", _timerCount.load()});
    out.push_back({"WorkQueueSize", io.queued.load() + task.queued.load()});
    out.push_back({"WorkerThreads", task.running.load()});
}

} // namespace System
} // namespace Tessera
