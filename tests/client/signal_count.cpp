// The counter's end, which no test lives to reach: this file is built without access control and
// sets the field.

#include "fixture.hpp"

namespace
{

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

} // namespace
