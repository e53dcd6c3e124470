#pragma once

/**
 * @file
 * One live signal.
 */

#include <bmcbus/live/handle.hpp>

namespace bmcbus
{

/** What `LiveSignal` may be told beside the path; every member may be left out. */
template <class T>
struct LiveSignalOptions
{
    /** The bus name that sends it; empty: whoever the object mapper names for the interface. */
    std::string service = {};

    /** Runs after each signal, with its arguments in the object. */
    live::Function<T&> on_signal = {};

    /** Runs when signals may have been missed: the service or the connection went, or arguments of
     * other types came. */
    live::Function<T&> on_missed = {};

    /** Runs after each change of the state. */
    live::Function<T&, LiveState> on_state = {};
};

/**
 * A signal that carries data, heard from its service alone, through restarts.
 *
 * `Live` means that a service is there and its signals are heard; the arguments are those of the
 * last signal, whoever the owner was. A signal of anybody else is ignored and counted. Threads,
 * callbacks, failures and fork() are as for `Live`; on_missed runs before the on_state that goes
 * with it.
 */
template <class T>
class LiveSignal
{
  public:
    /** What its construction takes. */
    using Options = LiveSignalOptions<T>;

    /** Follows the signal at @p path; otherwise as the constructor of `Live`. */
    LiveSignal(sd_bus* bus, std::string path, Options options = Options()) :
        handle_(bus, live::Access::TablesOf<T>(), std::move(path), options.service,
                std::make_shared<TypedHooks>(options))
    {
    }

    /** Takes the signal; the handle moved from follows none, and says `Absent`. @{ */
    LiveSignal(LiveSignal&&) noexcept = default;
    LiveSignal& operator=(LiveSignal&&) noexcept = default;
    /** @} */

    /** The last arguments, with their getters. Not after the handle was moved from. */
    T& operator*() const { return *static_cast<T*>(handle_.object()); }
    /** The same. */
    T* operator->() const { return static_cast<T*>(handle_.object()); }

    /** Whether signals are heard; any thread. */
    LiveState State() const { return handle_.State(); }

    /** An account of it; on the connection's thread. */
    LiveReport Report() const { return handle_.Report(); }

  private:
    struct TypedHooks final : live::Hooks
    {
        // The service is taken beside this, in whichever order.
        explicit TypedHooks(Options& options) :
            told{.service = {},
                 .on_signal = std::move(options.on_signal),
                 .on_missed = std::move(options.on_missed),
                 .on_state = std::move(options.on_state)}
        {
        }
        void State(void* object, LiveState state) override
        {
            if (told.on_state)
            {
                told.on_state(*static_cast<T*>(object), state);
            }
        }
        void Arrived(void* object) override
        {
            if (told.on_signal)
            {
                told.on_signal(*static_cast<T*>(object));
            }
        }
        void Missed(void* object) override
        {
            if (told.on_missed)
            {
                told.on_missed(*static_cast<T*>(object));
            }
        }

        Options told;
    };

    live::Handle handle_;
};

} // namespace bmcbus
