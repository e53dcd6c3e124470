// A queue, and workers that wait for it by a condition variable. Before it sleeps a worker looks a
// few times more, which spares producers most wake-ups.

#include "yetanotherthreadpool.hpp"

#include "log.hpp"
#include "threads/signals_blocked.hpp"
#include "threads/thread_exit.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace
{

// How often a worker that finds nothing lets other threads run and looks again before it goes to
// sleep. To sleep and be woken costs more than a short task does, and the next one may be near.
constexpr int yields = 2;

void JoinOrDetach(std::thread& thread)
{
    try
    {
        if (thread.joinable())
        {
            thread.join();
        }
    }
    catch (const std::exception&)
    {
        thread.detach();
    }
}

// A worker's lines carry the name of its body, which callers know.
constexpr const char* body = "workerThreadBody";

void Run(const std::function<void()>& task)
{
    try
    {
        BMCBUS_LOG_AS(info, bmcbus::log::librarySource, body, "before running task\n");
        task();
        BMCBUS_LOG_AS(info, bmcbus::log::librarySource, body, "after running task\n");
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG_AS(failure, bmcbus::log::librarySource, body, "Exception in task: %s\n",
                      e.what());
    }
    catch (...)
    {
        if (bmcbus::ThreadIsEnding())
        {
            throw;
        }
        BMCBUS_LOG_AS(failure, bmcbus::log::librarySource, body, "Exception in task: %s\n",
                      "not a std::exception");
    }
}

// Callers have the object on their stack: it has the size of these and no more.
struct Documented
{
    std::vector<std::thread> workers;
    std::deque<std::function<void()>> tasks;
    std::mutex queueMutex;
    std::condition_variable condition;
    std::atomic<bool> stop;
};
static_assert(sizeof(YetAnotherThreadPool) == sizeof(Documented));

} // namespace

YetAnotherThreadPool::YetAnotherThreadPool(Empty) : stop(false), lookingWorkers(0), leftWorkers(0)
{
}

// Once the delegated constructor is through, an exception from here runs the destructor, which
// stops and joins the workers that did start.
YetAnotherThreadPool::YetAnotherThreadPool(unsigned long threadCount) :
    YetAnotherThreadPool(Empty{})
{
    for (unsigned long started = 0; started < std::max(threadCount, 1UL); ++started)
    {
        makeNewWorkerThread();
    }
}

YetAnotherThreadPool::~YetAnotherThreadPool()
{
    BMCBUS_LOG(info, "deconstructor enter");
    try
    {
        {
            const std::lock_guard lock(queueMutex);
            stop = true;
            condition.notify_all();
        }
        BMCBUS_LOG(info, "deconstructor waiting");
        for (std::thread& worker : workers)
        {
            BMCBUS_LOG(info, "waiting for join");
            worker.join();
            BMCBUS_LOG(info, "joined");
        }
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG_EXCEPTION(bmcbus::log::librarySource, "\n", e.what());
        LetGoOfWorkers();
    }
    BMCBUS_LOG(info, "deconstructor leave");
}

// After a failed lock or join. A worker must at least have left the pool before the members go; and
// a std::thread that still stands for a thread would end the process. The mutex may be what fails,
// so nothing here needs it: a worker that misses one notification gets the next.
void YetAnotherThreadPool::LetGoOfWorkers()
{
    // A worker that destroys its own pool cannot wait for itself.
    const auto own = std::count_if(workers.begin(), workers.end(),
                                   [](const std::thread& worker)
                                   { return worker.get_id() == std::this_thread::get_id(); });
    const auto others = static_cast<unsigned short>(workers.size() - static_cast<size_t>(own));
    stop = true;
    while (leftWorkers < others)
    {
        condition.notify_all();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (std::thread& worker : workers)
    {
        JoinOrDetach(worker);
    }
}

void YetAnotherThreadPool::enqueue(const std::function<void()>& task)
{
    // The copy runs the caller's code: not under the mutex.
    std::function<void()> copy = task;
    const std::lock_guard lock(queueMutex);
    tasks.push_back(std::move(copy));
    if (tasks.size() > lookingWorkers)
    {
        condition.notify_one();
    }
}

void YetAnotherThreadPool::clearQueue()
{
    BMCBUS_LOG(info, "enter");
    std::deque<std::function<void()>> dropped;
    {
        const std::lock_guard lock(queueMutex);
        dropped.swap(tasks);
        condition.notify_all();
    }
    // What the tasks hold is the callers' and may come back here: it goes without the mutex.
    while (!dropped.empty())
    {
        dropped.pop_front();
    }
    BMCBUS_LOG(info, "leave");
}

void YetAnotherThreadPool::makeNewWorkerThread()
{
    const std::lock_guard lock(queueMutex);
    const bmcbus::SignalsBlocked inherited;
    workers.emplace_back(&YetAnotherThreadPool::workerThreadBody, this);
}

// Until it is back the worker counts as one that needs no waking: it looks at the queue again, also
// when the lock fails.
void YetAnotherThreadPool::LookAgain(std::unique_lock<std::mutex>& lock)
{
    struct Looking
    {
        decltype(lookingWorkers)& workers;
        ~Looking() { --workers; }
    } const looking{lookingWorkers};
    ++lookingWorkers;
    lock.unlock();
    std::this_thread::yield();
    lock.lock();
}

void YetAnotherThreadPool::workerThreadBody()
{
    for (;;)
    {
        std::function<void()> task;
        try
        {
            std::unique_lock lock(queueMutex);
            for (int looks = 0; tasks.empty() && !stop; ++looks)
            {
                if (looks < yields)
                {
                    LookAgain(lock);
                }
                else
                {
                    condition.wait(lock);
                }
            }
            if (tasks.empty())
            {
                BMCBUS_LOG(info, "exiting thread\n");
                lock.unlock();
                ++leftWorkers; // the last touch of the pool
                return;
            }
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        catch (const std::exception& e)
        {
            BMCBUS_LOG(failure, "Exception in while: %s\n", e.what());
            continue;
        }
        Run(task);
    }
}
