#pragma once

/**
 * @file
 * Watching a descriptor from an event loop.
 */

#include <function2/function2.hpp>
#include <sdeventplus/event.hpp>
#include <sdeventplus/exception.hpp>
#include <systemd/sd-event.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#pragma GCC visibility push(default)

namespace sdeventplus
{
namespace source
{

/**
 * Calls a function whenever a descriptor is ready. The descriptor stays the caller's. The watch
 * ends with the last copy; inside the callback that is allowed, and what the callback captured
 * lives until it has returned.
 */
class IO
{
  public:
    using Callback = fu2::unique_function<void(IO& source, int fd, std::uint32_t revents)>;

    /**
     * Starts watching for @p events (EPOLLIN ...).
     *
     * An exception from @p callback is printed to standard error; the watch stays.
     *
     * @throws SdEventError when the loop refuses, for example a descriptor that it already
     * watches
     */
    IO(const Event& event, int fd, std::uint32_t events, Callback&& callback)
    {
        auto kept = std::make_unique<Callback>(std::move(callback));
        sd_event_source* made = nullptr;
        const int result = sd_event_add_io(event.get(), &made, fd, events, &IO::run, kept.get());
        if (result < 0)
        {
            throw SdEventError(-result, "sd_event_add_io");
        }
        raw.reset(made);
        // From here on the watch itself owns the callback, however it ends.
        sd_event_source_set_destroy_callback(made, &IO::drop);
        static_cast<void>(kept.release());
    }

    IO(const IO& other) : raw(sd_event_source_ref(other.get())) {}

    IO& operator=(const IO& other)
    {
        raw.reset(sd_event_source_ref(other.get()));
        return *this;
    }

    IO(IO&&) noexcept = default;
    IO& operator=(IO&&) noexcept = default;
    ~IO() = default;

    /** Borrowed. */
    sd_event_source* get() const noexcept { return raw.get(); }

  private:
    explicit IO(sd_event_source* existing) : raw(sd_event_source_ref(existing)) {}

    static int run(sd_event_source* existing, int fd, std::uint32_t revents, void* data)
    {
        IO self(existing); // keeps the callback while it runs
        try
        {
            (*static_cast<Callback*>(data))(self, fd, revents);
        }
        catch (const std::exception& e)
        {
            std::fprintf(stderr, "sdeventplus: ioCallback: %s\n", e.what());
        }
        catch (...)
        {
            std::fputs("sdeventplus: ioCallback: Unknown error\n", stderr);
        }
        return 0;
    }

    static void drop(void* data) { delete static_cast<Callback*>(data); }

    struct unref
    {
        void operator()(sd_event_source* s) const { sd_event_source_unref(s); }
    };

    std::unique_ptr<sd_event_source, unref> raw;
};

} // namespace source
} // namespace sdeventplus

#pragma GCC visibility pop
