#include "benchclock.h"

#include <algorithm>
#include <atomic>

#include <pthread.h>

double medianOf(QVector<double> values)
{
    if (values.isEmpty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const int mid = values.size() / 2;
    return values.size() % 2 ? values.at(mid) : (values.at(mid - 1) + values.at(mid)) / 2.0;
}

double maxOf(const QVector<double>& values)
{
    return values.isEmpty() ? 0.0 : *std::max_element(values.begin(), values.end());
}

namespace {

std::atomic<int> g_workersStarted{0};
std::atomic<int> g_workersEnded{0};
std::atomic<qint64> g_lastWorkerEndNs{0};

struct TWorkerStart
{
    void* (*startRoutine)(void*);
    void* arg;
};

void* timedWorker(void* startArg)
{
    const TWorkerStart workerStart = *static_cast<TWorkerStart*>(startArg);
    delete static_cast<TWorkerStart*>(startArg);
    void* result = workerStart.startRoutine(workerStart.arg);
    g_lastWorkerEndNs = benchNowNs();
    ++g_workersEnded;
    return result;
}

} // namespace

int benchWorkersStarted() { return g_workersStarted; }
int benchWorkersEnded() { return g_workersEnded; }
qint64 benchLastWorkerEndNs() { return g_lastWorkerEndNs; }

extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*startRoutine)(void*),
                                     void* arg);

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*startRoutine)(void*),
                                     void* arg)
{
    auto* workerStart = new TWorkerStart{startRoutine, arg};
    const int ret = __real_pthread_create(thread, attr, &timedWorker, workerStart);
    if (ret != 0)
        delete workerStart;
    else
        ++g_workersStarted;
    return ret;
}
