// The counter's end, which no test lives to reach, and locks that fail: this file is built without
// access control and sets the fields.

#include "fixture.hpp"

#include <system_error>

namespace
{

// From now on the mutex cannot be taken by this thread.
class Refused
{
  public:
    explicit Refused(std::mutex& refused) : mutex(refused)
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_init(mutex.native_handle(), &attributes);
        pthread_mutexattr_destroy(&attributes);
        mutex.lock();
    }
    ~Refused() { mutex.unlock(); }
    Refused(const Refused&) = delete;
    Refused& operator=(const Refused&) = delete;

  private:
    std::mutex& mutex;
};

class SignalCount : public ClientTest
{
};

TEST_F(SignalCount, GoesFromTheLastNumberToOne)
{
    Fan fan(fanPath, fanService);
    FanSignal signal(fanPath);
    for (int i = 0; i < 2; ++i)
    {
        fan.signal_count = 0xFFFFFFFE;
        signal.signal_count = 0xFFFFFFFE;
        for (const uint32_t expected : {0xFFFFFFFFU, 1U, 2U})
        {
            Change({});
            fans->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
            Deliver();
            EXPECT_EQ(fan.SignalCount(), expected);
            EXPECT_EQ(signal.SignalCount(), expected);
        }
    }
    fan.signal_count = 0xFFFFFFFF;
    Add({});
    EXPECT_EQ(fan.SignalCount(), 1U);
    fan.signal_count = 0xFFFFFFFF;
    Remove({});
    EXPECT_EQ(fan.SignalCount(), 1U);
}

TEST_F(SignalCount, LocksThatFailReachTheCaller)
{
    Fan fan(fanPath, fanService);
    FanSignal signal(fanPath);
    FanEdge edge(fanService, fanPath);
    test::ClearLog();
    const Refused cached(fan.object_mutex);
    const Refused subscribed(signal.object_mutex);
    const Refused direct(edge.target.mutex.mutex_);
    bool flag = true;
    uint8_t count = 9;
    EXPECT_THROW(fan.Ready(), std::system_error);
    EXPECT_THROW(fan.Get_fanCount(), std::system_error);
    EXPECT_THROW(fan.Get_fanCount(count), std::system_error);
    EXPECT_THROW(fan.Get_fanCount(flag, count), std::system_error);
    EXPECT_THROW(fan.Set_fanCount(count), std::system_error);
    EXPECT_THROW(signal.SignalCount(), std::system_error);
    EXPECT_THROW(signal.Get_fanCount(), std::system_error);
    EXPECT_THROW(edge.Service(), std::system_error);
    EXPECT_THAT(Logged(), testing::IsEmpty());
    edge.Get_fanCount(flag, count);
    EXPECT_FALSE(flag);
    EXPECT_EQ(count, 9);
    EXPECT_EQ(test::CountLog(2, 127, "Get_fanCount",
                             "EXCEPTION " + std::generic_category().message(EDEADLK)),
              1U);
}

} // namespace
