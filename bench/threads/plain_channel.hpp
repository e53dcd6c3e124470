#pragma once

// The plainest correct version of the one-way channel: a message on the heap, a list, two bytes
// written for each message and up to 32 read at each wake-up. The write comes after the lock, since
// it waits while the pipe is full and the loop needs the lock to empty it.

#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <list>
#include <mutex>

namespace bench
{

class PlainChannel
{
  public:
    using Function = std::function<int(void*, void*, unsigned long)>;

    explicit PlainChannel(void* given) : context(given)
    {
        if (pipe(ends) != 0)
        {
            std::abort();
        }
    }

    ~PlainChannel()
    {
        close(ends[0]);
        close(ends[1]);
    }

    PlainChannel(const PlainChannel&) = delete;
    PlainChannel& operator=(const PlainChannel&) = delete;

    void Post(Function function, void* data, unsigned long size, bool freeData)
    {
        auto* const message = new Message{std::move(function), data, size, freeData};
        {
            const std::lock_guard lock(mutex);
            queue.push_back(message);
        }
        if (write(ends[1], "R", 2) != 2)
        {
            std::abort();
        }
    }

    int ReadEnd() const { return ends[0]; }

    // On the loop's thread, when the read end is readable.
    void Receive()
    {
        char triggers[32];
        static_cast<void>(!read(ends[0], triggers, sizeof(triggers)));
        while (Message* const message = Next())
        {
            message->function(context, message->data, message->size);
            if (message->freeData)
            {
                std::free(message->data);
            }
            delete message;
        }
    }

  private:
    struct Message
    {
        Function function;
        void* data;
        unsigned long size;
        bool freeData;
    };

    Message* Next()
    {
        const std::lock_guard lock(mutex);
        if (queue.empty())
        {
            return nullptr;
        }
        Message* const first = queue.front();
        queue.pop_front();
        return first;
    }

    void* context;
    int ends[2];
    std::mutex mutex;
    std::list<Message*> queue;
};

} // namespace bench
