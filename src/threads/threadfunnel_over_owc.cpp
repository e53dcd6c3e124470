#include "threadfunnel_over_owc.hpp"

#include "oneway_channel.hpp"
#include "threads/thread_exit.hpp"
#include "threads/threadfunnel_internal.hpp"

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <exception>

namespace
{

constexpr int notRegistered = 3; // OneWayChannel_Execute: nothing was queued

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
        bmcbus::funnel::runsChannelItem = true;
    }

    ~ItemRun()
    {
        bmcbus::funnel::runsChannelItem = false;
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

// Tells fork() on the channel's thread that this send waits for that thread.
struct ChannelSend
{
    ChannelSend() { bmcbus::funnel::channelSend = true; }
    ~ChannelSend() { bmcbus::funnel::channelSend = false; }
    ChannelSend(const ChannelSend&) = delete;
    ChannelSend& operator=(const ChannelSend&) = delete;
};

void TFoOWC_send_work(std::function<void()>& work)
{
    const ChannelSend announced;
    CompletionSignal done;
    MessageData data{&work, &done};
    const int irv = OneWayChannel_Execute(TFoOWC_callback, &data, sizeof(data), 0);
    if (irv == notRegistered)
    {
        FUNNEL_LOG_TWICE(failure, "OneWayChannel_Execute returned an error, irv=%d", irv);
        return;
    }
    // Also when the trigger could not be written: the message is queued and refers to this frame.
    done.Wait();
}

} // namespace

void TFoOWC_init_and_send_work(std::function<void()>& work)
{
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
    std::atomic_ref(owc_tid).store(tid, std::memory_order_relaxed);
    std::atomic_ref(owc_tid_valid).store(true, std::memory_order_release);
    if (pthread_equal(tid, pthread_self()) != 0)
    {
        BMCBUS_LOG(info, "running direct because current thread is the OWC thread\n");
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
    if (TF_check_for_deadlock())
    {
        FUNNEL_LOG_TWICE(failure, "deadlock detected\n");
        return;
    }
    const bmcbus::funnel::SendTurn turn;
    TFoOWC_send_work(work);
}
