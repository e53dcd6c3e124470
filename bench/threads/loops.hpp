#pragma once

// The kinds of loop that can drive the channel, or its plain version instead. All members are for
// the thread that makes the loop.

#include "plain_channel.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <memory>
#include <optional>
#include <string>

namespace bench
{

class Loop
{
  public:
    virtual ~Loop() = default;
    // Registers with the library's channel.
    virtual void Register(void* context) = 0;
    virtual void Watch(PlainChannel& channel) = 0;
    virtual void Run() = 0;
    // In a message's function.
    virtual void Stop() = 0;
    // Where functions can be posted without a channel, in a loop that has it.
    virtual boost::asio::io_context* Context() { return nullptr; }
};

// By name: sd-event, zloop, asio, poll.
std::unique_ptr<Loop> MakeLoop(const std::string& kind);

// Where a contender's messages go: the library's channel on this loop, which for "once" is woken
// once for a burst, a plain one, or, for "asio", the loop's own queue.
class Poster
{
  public:
    // Registers. The context of all messages is `context`. Ends the process with 77 when the loop
    // has no queue of its own, or none for other threads.
    Poster(const std::string& who, Loop& loop, void* context);
    ~Poster();
    Poster(const Poster&) = delete;
    Poster& operator=(const Poster&) = delete;

    // Any thread.
    void Post(int (*function)(void*, void*, unsigned long), void* data, unsigned long size) const;

  private:
    using Queue = boost::asio::io_context::executor_type;

    void* context;
    std::unique_ptr<PlainChannel> plain;
    std::optional<boost::asio::executor_work_guard<Queue>> queue; // neither for the library
};

} // namespace bench
