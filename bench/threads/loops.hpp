#pragma once

// The kinds of loop that can drive the channel, or its plain version instead. All members are for
// the thread that makes the loop.

#include "plain_channel.hpp"

#include <memory>
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
};

// By name: sd-event, zloop, asio, poll.
std::unique_ptr<Loop> MakeLoop(const std::string& kind);

// Where a contender's messages go: the library's channel on this loop, or a plain one.
class Poster
{
  public:
    // Registers. The context of all messages is `context`.
    Poster(const std::string& who, Loop& loop, void* context);
    ~Poster();
    Poster(const Poster&) = delete;
    Poster& operator=(const Poster&) = delete;

    // Any thread.
    void Post(int (*function)(void*, void*, unsigned long), void* data, unsigned long size) const;

  private:
    std::unique_ptr<PlainChannel> plain; // null for the library
};

} // namespace bench
