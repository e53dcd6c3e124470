// The kinds of loop, each with the channel and with a plain pipe in its place.

#include "loops.hpp"

#include <boost/asio/post.hpp>
#include <czmq.h>
#include <oneway_channel.hpp>
#include <poll.h>
#include <systemd/sd-event.h>

#include <cstdlib>
#include <stdexcept>

namespace bench
{
namespace
{

class SdEvent : public Loop
{
  public:
    SdEvent() { sd_event_new(&event); }
    ~SdEvent() override { sd_event_unref(event); }
    void Register(void* context) override { OneWayChannel_RegisterSDEvent(event, context); }
    void Watch(PlainChannel& channel) override
    {
        const auto receive = [](sd_event_source*, int, uint32_t, void* to)
        {
            static_cast<PlainChannel*>(to)->Receive();
            return 0;
        };
        sd_event_add_io(event, nullptr, channel.ReadEnd(), EPOLLIN, receive, &channel);
    }
    void Run() override { sd_event_loop(event); }
    void Stop() override { sd_event_exit(event, 0); }

  private:
    sd_event* event = nullptr;
};

class ZLoop : public Loop
{
  public:
    ~ZLoop() override { zloop_destroy(&loop); }
    void Register(void* context) override { OneWayChannel_RegisterZLoop(loop, context); }
    void Watch(PlainChannel& channel) override
    {
        const auto receive = [](zloop_t*, zmq_pollitem_t*, void* to)
        {
            static_cast<PlainChannel*>(to)->Receive();
            return 0;
        };
        zmq_pollitem_t item{nullptr, channel.ReadEnd(), ZMQ_POLLIN, 0};
        zloop_poller(loop, &item, receive, &channel);
    }
    void Run() override { zloop_start(loop); }
    void Stop() override
    {
        const auto end = [](zloop_t*, int, void*) { return -1; };
        zloop_timer(loop, 0, 1, end, nullptr);
    }

  private:
    zloop_t* loop = zloop_new();
};

class Asio : public Loop
{
  public:
    void Register(void* context) override
    {
        infrautils::OneWayChannel::GetInstance()->RegisterIOContext(io, context, {});
    }
    void Watch(PlainChannel& channel) override
    {
        watch.assign(dup(channel.ReadEnd()));
        Wait(channel);
    }
    void Run() override { io.run(); }
    void Stop() override { io.stop(); }
    boost::asio::io_context* Context() override { return &io; }

  private:
    void Wait(PlainChannel& channel)
    {
        watch.async_wait(watch.wait_read,
                         [this, &channel](const boost::system::error_code& error)
                         {
                             if (!error)
                             {
                                 channel.Receive();
                                 Wait(channel);
                             }
                         });
    }

    boost::asio::io_context io;
    boost::asio::posix::stream_descriptor watch{io};
};

class Poll : public Loop
{
  public:
    void Register(void* context) override
    {
        OneWayChannel_GetChannelFDAndSelfRegister(&fd, context);
    }
    void Watch(PlainChannel& channel) override
    {
        plain = &channel;
        fd = channel.ReadEnd();
    }
    void Run() override
    {
        pollfd end{fd, POLLIN, 0};
        while (!stopped && poll(&end, 1, -1) > 0)
        {
            if (plain != nullptr)
            {
                plain->Receive();
            }
            else
            {
                OneWayChannel_Process(fd);
            }
        }
    }
    void Stop() override { stopped = true; }

  private:
    PlainChannel* plain = nullptr;
    int fd = -1;
    bool stopped = false;
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const std::string& kind)
{
    if (kind == "sd-event")
    {
        return std::make_unique<SdEvent>();
    }
    if (kind == "zloop")
    {
        return std::make_unique<ZLoop>();
    }
    if (kind == "asio")
    {
        return std::make_unique<Asio>();
    }
    if (kind == "poll")
    {
        return std::make_unique<Poll>();
    }
    throw std::invalid_argument("no such loop: " + kind);
}

Poster::Poster(const std::string& who, Loop& loop, void* given) : context(given)
{
    if (who == "library" || who == "once")
    {
        loop.Register(context);
        if (who == "once")
        {
            OneWayChannel_WakeOncePerBurst();
        }
    }
    else if (who == "asio")
    {
        // Without Asio's locks nobody may post from another thread.
        if (loop.Context() == nullptr || BMCBUS_ASIO_DISABLE_THREADS == 1)
        {
            std::exit(77);
        }
        queue.emplace(loop.Context()->get_executor());
    }
    else
    {
        plain = std::make_unique<PlainChannel>(context);
        loop.Watch(*plain);
    }
}

Poster::~Poster()
{
    if (!plain && !queue)
    {
        OneWayChannel_Unregister();
    }
}

void Poster::Post(int (*function)(void*, void*, unsigned long), void* data,
                  unsigned long size) const
{
    if (queue)
    {
        boost::asio::post(queue->get_executor(), [=, to = context] { function(to, data, size); });
    }
    else if (plain)
    {
        plain->Post(function, data, size, false);
    }
    else
    {
        OneWayChannel_Execute(function, data, size, 0);
    }
}

} // namespace bench
