#pragma once

/**
 * @file
 * A connection in an asio `io_context`.
 */

#include <bmcbus/attach/end.hpp>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/system/error_code.hpp>

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace bmcbus::attach
{

/**
 * Has an `io_context` dispatch a connection, for as long as this object lives.
 *
 * Make and destroy it on the thread that runs the context, and destroy it before the context. While
 * it lives the context's `run` does not return. Keeps the connection. One that sdbusplus's asio
 * classes have opened they dispatch themselves; it needs this only for calls with deadlines.
 *
 * After `fork()` a child that keeps the context tells it (`notify_fork`) before it destroys this.
 *
 * @code
 * boost::asio::io_context io;
 * bmcbus::attach::Asio attached(io);          // the thread's default system bus
 * Fans* fans = Fans::Create("/com/tamm/bmc/thermal/fans/chassis");
 * io.run();
 * @endcode
 */
class Asio
{
  public:
    /**
     * Does not block.
     *
     * @param bus  null means the calling thread's default system bus
     * @throws bmcbus::Error when the connection has ended, or `std::system_error` when descriptors
     * are scarce
     */
    explicit Asio(boost::asio::io_context& io, sd_bus* bus = nullptr, EndHandler onEnd = {}) :
        state(std::make_shared<State>(io, bus, std::move(onEnd)))
    {
        state->Wait();
    }

    /** The same for a wrapped connection. */
    Asio(boost::asio::io_context& io, Bus& bus, EndHandler onEnd = {}) :
        Asio(io, Connection(bus), std::move(onEnd))
    {
    }

    ~Asio() { state->Detach(); }

    Asio(const Asio&) = delete;
    Asio& operator=(const Asio&) = delete;

  private:
    struct State : std::enable_shared_from_this<State>
    {
        State(boost::asio::io_context& io, sd_bus* bus, EndHandler onEnd) :
            link(bus, std::move(onEnd)), watch(io, Copy(link.Descriptor()))
        {
        }

        // Asio closes what it watches.
        static int Copy(int descriptor)
        {
            const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
            if (copy < 0)
            {
                throw std::system_error(errno, std::generic_category(), "fcntl");
            }
            return copy;
        }

        void Wait()
        {
            watch.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                             [self = this->shared_from_this()](boost::system::error_code error)
                             {
                                 if (!error && self->link.Attached())
                                 {
                                     self->Turn();
                                 }
                             });
        }

        void Turn()
        {
            const int ended = link.Dispatch();
            if (ended < 0)
            {
                Close();
                link.End(ended);
            }
            else if (link.Attached())
            {
                Wait();
            }
        }

        void Detach()
        {
            link.Detach();
            Close();
        }

        void Close()
        {
            boost::system::error_code ignored;
            watch.close(ignored);
        }

        detail::Link link;
        boost::asio::posix::stream_descriptor watch;
    };

    std::shared_ptr<State> state;
};

} // namespace bmcbus::attach
