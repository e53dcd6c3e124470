#pragma once

// Calls of which so many are under way at a time: each one that ends starts the next.

#include <functional>

namespace bench
{

struct InFlight
{
    static constexpr long together = 20;

    explicit InFlight(long count) : toSend(count), left(count) {}

    void Begin()
    {
        for (long i = 0; i < together && toSend > 0; ++i)
        {
            Send();
        }
    }
    // One has ended; true for the last.
    bool Arrived()
    {
        if (toSend > 0)
        {
            Send();
        }
        return --left == 0;
    }

    std::function<void()> send{};

  private:
    void Send()
    {
        --toSend;
        send();
    }

    long toSend;
    long left;
};

} // namespace bench
