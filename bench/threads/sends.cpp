// Sends that wait for their item: through the funnel, or over the channel on a loop of this kind.
//
//   bench-sends library|plain funnel|LOOP SENDERS COUNT

#include "loops.hpp"
#include <cost.hpp>

#include <threadfunnel.hpp>
#include <threadfunnel_over_owc.hpp>

#include <condition_variable>
#include <iostream>
#include <semaphore.h>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using Item = std::function<void()>;
using Send = std::function<void(Item&)>;

// A thread that items are handed to with one condition variable.
class HandOver
{
  public:
    ~HandOver()
    {
        Item end = [this] { ended = true; };
        Do(end);
        thread.join();
    }

    void Do(Item& work)
    {
        const std::lock_guard oneAtATime(turn);
        std::unique_lock lock(mutex);
        item = &work;
        lock.unlock();
        condition.notify_all();
        lock.lock();
        while (!done)
        {
            condition.wait(lock);
        }
        done = false;
    }

  private:
    void Serve()
    {
        std::unique_lock lock(mutex);
        while (!ended)
        {
            while (item == nullptr)
            {
                condition.wait(lock);
            }
            Item& work = *std::exchange(item, nullptr);
            lock.unlock();
            work();
            lock.lock();
            done = true;
            lock.unlock();
            condition.notify_all();
            lock.lock();
        }
    }

    std::mutex turn;
    std::mutex mutex;
    std::condition_variable condition;
    Item* item = nullptr;
    bool done = false;
    bool ended = false;
    std::thread thread{&HandOver::Serve, this};
};

// A posted item and a semaphore, one at a time like the library's sends.
class PostAndWait
{
  public:
    explicit PostAndWait(const bench::Poster& to) : poster(to) {}

    void Do(Item& work)
    {
        const std::lock_guard oneAtATime(turn);
        Message message{&work, {}};
        sem_init(&message.done, 0, 0);
        poster.Post(RunItem, &message, sizeof(message));
        while (sem_wait(&message.done) != 0)
        {
        }
        sem_destroy(&message.done);
    }

  private:
    struct Message
    {
        Item* work;
        sem_t done;
    };

    static int RunItem(void*, void* data, unsigned long)
    {
        Message& message = *static_cast<Message*>(data);
        (*message.work)();
        return sem_post(&message.done);
    }

    const bench::Poster& poster;
    std::mutex turn;
};

// Measures `count` sends of `senders` threads, after one that starts everything.
void Measure(const Send& send, int senders, long count)
{
    long ran = 0;
    Item work = [&] { ++ran; };
    send(work);
    const bench::Stopwatch stopwatch;
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(senders));
    for (int i = 0; i < senders; ++i)
    {
        threads.emplace_back(
            [&]
            {
                for (long sent = 0; sent < count / senders; ++sent)
                {
                    send(work);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    stopwatch.Print(count);
    if (ran != count + 1)
    {
        std::abort();
    }
}

void MeasureOverLoop(const std::string& who, const std::string& kind, int senders, long count)
{
    const auto loop = bench::MakeLoop(kind);
    const bench::Poster poster(who, *loop, nullptr);
    std::thread measuring(
        [&]
        {
            PostAndWait plain(poster);
            Send send = TFoOWC_init_and_send_work;
            if (who != "library")
            {
                send = [&](Item& work) { plain.Do(work); };
            }
            Measure(send, senders, count);
            Item stop = [&] { loop->Stop(); };
            send(stop);
        });
    loop->Run();
    measuring.join();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
    {
        std::cerr << "usage: bench-sends library|plain funnel|LOOP SENDERS COUNT\n";
        return 2;
    }
    const std::string who = argv[1];
    const std::string way = argv[2];
    const int senders = std::stoi(argv[3]);
    const long count = std::stol(argv[4]);
    if (way != "funnel")
    {
        MeasureOverLoop(who, way, senders, count);
    }
    else if (who == "library")
    {
        Measure(TF_init_and_send_work, senders, count);
    }
    else
    {
        HandOver plain;
        Measure([&](Item& work) { plain.Do(work); }, senders, count);
    }
    return 0;
}
