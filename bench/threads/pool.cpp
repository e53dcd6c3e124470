// Small tasks through a pool, in bursts that are awaited.
//
//   bench-pool library|plain|asio|tbb WORKERS TASKS

#include <cost.hpp>

#include <bmcbus/config.h>
#include <yetanotherthreadpool.hpp>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#ifdef BENCH_TBB
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/task_arena.h>
#endif

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <semaphore>
#include <string>
#include <utility>

namespace
{

constexpr long burst = 1000;

// A deque, a mutex and a condition variable.
class PlainPool
{
  public:
    explicit PlainPool(unsigned long workers)
    {
        for (unsigned long i = 0; i < workers; ++i)
        {
            threads.emplace_back(&PlainPool::Work, this);
        }
    }

    ~PlainPool()
    {
        {
            const std::lock_guard lock(mutex);
            stop = true;
        }
        condition.notify_all();
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }

    void Add(std::function<void()> task)
    {
        {
            const std::lock_guard lock(mutex);
            tasks.push_back(std::move(task));
        }
        condition.notify_one();
    }

  private:
    void Work()
    {
        std::unique_lock lock(mutex);
        for (;;)
        {
            while (tasks.empty() && !stop)
            {
                condition.wait(lock);
            }
            if (tasks.empty())
            {
                return;
            }
            const std::function<void()> task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
    }

    std::mutex mutex;
    std::condition_variable condition;
    std::deque<std::function<void()>> tasks;
    bool stop = false;
    std::vector<std::thread> threads;
};

struct Bursts
{
    std::atomic<long> ran = 0;
    std::binary_semaphore next{0};

    void Count()
    {
        if (++ran % burst == 0)
        {
            next.release();
        }
    }
};

// `add` is given a task, many times.
template <class Add>
void Measure(long tasks, Add add)
{
    Bursts bursts;
    const auto task = [&bursts] { bursts.Count(); };
    const bench::Stopwatch stopwatch;
    for (long added = 0; added < tasks; added += burst)
    {
        for (long i = 0; i < burst; ++i)
        {
            add(task);
        }
        bursts.next.acquire();
    }
    stopwatch.Print(tasks);
}

#ifdef BENCH_TBB
void MeasureTbb(unsigned long workers, long tasks)
{
    const tbb::global_control threads(tbb::global_control::max_allowed_parallelism, workers + 1);
    tbb::task_arena arena(static_cast<int>(workers), 0);
    Measure(tasks, [&](const auto& task) { arena.enqueue(task); });
}
#endif

int Run(const std::string& who, unsigned long workers, long tasks)
{
    if (who == "library")
    {
        YetAnotherThreadPool pool(workers);
        Measure(tasks, [&](const auto& task) { pool.enqueue(task); });
    }
    else if (who == "plain")
    {
        PlainPool pool(workers);
        Measure(tasks, [&](const auto& task) { pool.Add(task); });
    }
    else if (who == "asio" && BMCBUS_ASIO_DISABLE_THREADS == 0) // else it makes no threads
    {
        boost::asio::thread_pool pool(workers);
        Measure(tasks, [&](const auto& task) { boost::asio::post(pool, task); });
    }
#ifdef BENCH_TBB
    else if (who == "tbb")
    {
        MeasureTbb(workers, tasks);
    }
#endif
    else
    {
        return 77; // not built in
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
    {
        std::cerr << "usage: bench-pool library|plain|asio|tbb WORKERS TASKS\n";
        return 2;
    }
    return Run(argv[1], std::stoul(argv[2]), std::stol(argv[3]));
}
