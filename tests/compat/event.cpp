// Watches on an sd-event loop, and the functions they call.

#include "thrower.hpp"

#include <gtest/gtest.h>
#include <sdeventplus/event.hpp>
#include <sdeventplus/exception.hpp>
#include <sdeventplus/source/io.hpp>
#include <sys/epoll.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

namespace
{

using sdeventplus::Event;
using sdeventplus::source::IO;

class EventTest : public testing::Test
{
  public:
    EventTest(const EventTest&) = delete;
    EventTest& operator=(const EventTest&) = delete;

  protected:
    EventTest()
    {
        EXPECT_EQ(pipe(pipes), 0);
        EXPECT_GE(sd_event_new(&loop), 0);
        Write();
    }

    ~EventTest() override
    {
        sd_event_unref(loop);
        close(pipes[0]);
        close(pipes[1]);
    }

    void Write() const { EXPECT_EQ(write(pipes[1], "x", 1), 1); }

    void Read() const
    {
        char c = 0;
        EXPECT_EQ(read(pipes[0], &c, 1), 1);
    }

    // One round; true when something was dispatched.
    bool Round() const { return sd_event_run(loop, 0) > 0; }

    int pipes[2] = {-1, -1};
    sd_event* loop = nullptr;
};

TEST_F(EventTest, RefusalsSayWhy)
{
    Event event(loop);
    IO io(event, pipes[0], EPOLLIN, [](IO&, int, uint32_t) {});
    try
    {
        io = IO(event, pipes[0], EPOLLIN, [](IO&, int, uint32_t) {});
        FAIL();
    }
    catch (const sdeventplus::SdEventError& e)
    {
        EXPECT_STREQ(e.what(), "sd_event_add_io: File exists");
        EXPECT_EQ(e.code(), std::errc::file_exists);
    }
    try
    {
        Event none(nullptr);
        IO refused(none, pipes[0], EPOLLIN, [](IO&, int, uint32_t) {});
        FAIL();
    }
    catch (const std::system_error& e)
    {
        EXPECT_STREQ(e.what(), "sd_event_add_io: Invalid argument");
    }
    EXPECT_TRUE(Round()) << "the watch that was there is gone";
}

TEST_F(EventTest, ErrorIsCaughtFromAnotherSharedObject)
{
    EXPECT_THROW(ThrowEventError(), sdeventplus::SdEventError);
    EXPECT_THROW(ThrowEventError(), std::system_error);
}

TEST_F(EventTest, ExceptionsArePrintedAndTheWatchStays)
{
    Event event(loop);
    int count = 0;
    IO io(event, pipes[0], EPOLLIN,
          [&](IO&, int, uint32_t)
          {
              if (++count == 1)
              {
                  throw std::runtime_error("broken");
              }
              throw 2;
          });
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Round());
    EXPECT_TRUE(Round());
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count, 2);
    EXPECT_EQ(text, "sdeventplus: ioCallback: broken\nsdeventplus: ioCallback: Unknown error\n");
}

TEST_F(EventTest, CopiesKeepTheWatchAndTheLastOneEndsIt)
{
    Event event(loop);
    auto kept = std::make_shared<int>(0);
    std::optional<IO> io(std::in_place, event, pipes[0], EPOLLIN,
                         [kept](IO&, int, uint32_t) { ++*kept; });
    std::optional<IO> copy(io);
    io.reset();
    EXPECT_TRUE(Round());
    EXPECT_EQ(*kept, 1);
    IO moved(std::move(*copy));
    copy.reset();
    EXPECT_TRUE(Round());
    EXPECT_EQ(*kept, 2);
    {
        const IO last(std::move(moved));
    }
    EXPECT_FALSE(Round());
    EXPECT_EQ(kept.use_count(), 1) << "the callback outlived its watch";
}

TEST_F(EventTest, AWatchMayGoInItsOwnCallback)
{
    Event event(loop);
    auto kept = std::make_shared<int>(0);
    std::optional<IO> io;
    io.emplace(event, pipes[0], EPOLLIN,
               [&io, kept](IO&, int, uint32_t)
               {
                   io.reset();
                   ++*kept; // captures live until the end
               });
    EXPECT_TRUE(Round());
    EXPECT_FALSE(Round());
    EXPECT_EQ(*kept, 1);
    EXPECT_EQ(kept.use_count(), 1);
}

} // namespace
