// A thread starts a timer of an io_context, which only the context's own thread may touch.
#include <bmcbus/attach/channel.hpp>
#include <threadfunnel_over_owc.hpp>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstdio>
#include <thread>

int main()
{
    boost::asio::io_context io;
    boost::asio::steady_timer timer(io);
    bool rang = false;
    const bmcbus::attach::Channel channel(io); // on the thread that will run the context

    std::thread other(
        [&]
        {
            std::function<void()> start = [&]
            {
                timer.expires_after(std::chrono::milliseconds(1));
                timer.async_wait(
                    [&](const boost::system::error_code& error)
                    {
                        rang = !error;
                        io.stop(); // the channel's watch would keep it running
                    });
            };
            TFoOWC_init_and_send_work(start); // returns once it has run on the context's thread
            std::puts("timer started");
        });
    io.run();
    other.join();
    std::puts(rang ? "timer rang" : "timer failed");
    return rang ? 0 : 1;
}
