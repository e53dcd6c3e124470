// A send over the channel: a message that refers to the sender's frame, and a semaphore that keeps
// that frame until the message has run. Its turn, and who must not wait for it, are the funnel's.

#include "threadfunnel_over_owc.hpp"

#define FUNNEL_LOG_FILE "threadfunnel_over_owc.cpp"

#include "oneway_channel.hpp"
#include "threads/oneway_channel_internal.hpp"
#include "threads/thread_exit.hpp"
#include "threads/threadfunnel_line.hpp"
#include "threads/threadfunnel_log.hpp"

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <optional>

namespace
{

constexpr const char* sendWork = "TFoOWC_send_work";
constexpr const char* callback = "TFoOWC_callback";

// What a send and its callback share, in the sender's frame. Made as taken; the callback releases
// it, and from then on the frame may be gone.
class CompletionSignal
{
  public:
    CompletionSignal()
    {
        if (sem_init(&semaphore, 0, 0) != 0)
        {
            BMCBUS_LOG_AS(failure, bmcbus::log::librarySource, sendWork,
                          "pthread_mutex_lock irv=%d", errno);
        }
    }

    ~CompletionSignal() { sem_destroy(&semaphore); }

    CompletionSignal(const CompletionSignal&) = delete;
    CompletionSignal& operator=(const CompletionSignal&) = delete;

    // Both go on trying after a failure: the sender must neither leave early nor stay for ever.
    void Wait()
    {
        while (sem_wait(&semaphore) != 0)
        {
            if (errno != EINTR)
            {
                BMCBUS_LOG_AS(failure, bmcbus::log::librarySource, sendWork,
                              "pthread_mutex_lock irv=%d", errno);
                sched_yield();
            }
        }
    }

    void Release()
    {
        while (sem_post(&semaphore) != 0)
        {
            BMCBUS_LOG_AS(failure, bmcbus::log::librarySource, callback,
                          "pthread_mutex_unlock irv=%d", errno);
            sched_yield();
        }
    }

  private:
    sem_t semaphore;
};

struct MessageData
{
    std::function<void()>* work;
    CompletionSignal* done;
};
static_assert(sizeof(MessageData) == 2 * sizeof(void*));

// The item's time on the channel's thread; its sender goes on when it ends, in whichever way.
class ItemRun
{
  public:
    explicit ItemRun(CompletionSignal& signal) : done(signal)
    {
        bmcbus::funnel::thisThread.runsChannelItem = true;
    }

    ~ItemRun()
    {
        bmcbus::funnel::thisThread.runsChannelItem = false;
        done.Release();
    }

    ItemRun(const ItemRun&) = delete;
    ItemRun& operator=(const ItemRun&) = delete;

  private:
    CompletionSignal& done;
};

int TFoOWC_callback(void* /*context*/, void* data, unsigned long /*size*/)
{
    const MessageData message = *static_cast<const MessageData*>(data);
    const ItemRun run(*message.done);
    try
    {
        (*message.work)();
    }
    catch (const std::exception& e)
    {
        FUNNEL_LOG_EXCEPTION(e.what());
    }
    catch (...)
    {
        if (bmcbus::ThreadIsEnding())
        {
            throw;
        }
        FUNNEL_LOG_EXCEPTION(bmcbus::funnel::foreignException);
    }
    return 0;
}

void TFoOWC_send_work(std::function<void()>& work)
{
    CompletionSignal done;
    MessageData data{&work, &done};
    const int irv = OneWayChannel_Execute(TFoOWC_callback, &data, sizeof(data), 0);
    if (irv == infrautils::channel::notPossible) // nothing was queued
    {
        FUNNEL_LOG_TWICE_AS(failure, sendWork, "OneWayChannel_Execute returned an error, irv=%d",
                            irv);
        return;
    }
    // Also when the trigger could not be written: the message is queued and refers to this frame.
    done.Wait();
}

} // namespace

void TFoOWC_init_and_send_work(std::function<void()>& work)
{
    std::optional<bmcbus::NoCancellation> wholeSend(std::in_place);
    bmcbus::funnel::OwnState();
    if (!TF_setup_key_and_atfork())
    {
        BMCBUS_LOG(failure, "unable to setup key and atfork\n");
        return;
    }
    bool registered = false;
    bool tidValid = false;
    pthread_t tid{};
    OneWayChannel_IsRegistered(&registered, &tidValid, &tid);
    if (!registered)
    {
        FUNNEL_LOG_TWICE(failure, "OWC is not registered\n");
        return;
    }
    if (!tidValid)
    {
        FUNNEL_LOG_TWICE(failure, "TID is not set\n");
        return;
    }
    bmcbus::funnel::SetThread(owc_tid, owc_tid_valid, tid);
    if (pthread_equal(tid, pthread_self()) != 0)
    {
        BMCBUS_LOG(info, "running direct because current thread is the OWC thread\n");
        wholeSend.reset();
        try
        {
            work();
        }
        catch (const std::exception& e)
        {
            FUNNEL_LOG_EXCEPTION(e.what());
        }
        return;
    }
    bmcbus::funnel::SendTurn turn;
    if (turn.TheVerdict().Refused())
    {
        turn.TheVerdict().Report();
        FUNNEL_LOG_TWICE(failure, "deadlock detected\n");
        return;
    }
    bmcbus::funnel::SendTurn::AwaitLoop(infrautils::channel::LoopThread);
    TFoOWC_send_work(work);
}
