#pragma once

/**
 * @file
 * One live object.
 */

#include <bmcbus/live/handle.hpp>

namespace bmcbus
{

/** What `Live` may be told beside the path; every member may be left out. */
template <class T>
struct LiveOptions
{
    /** The bus name that has the object; empty: whoever the object mapper names, followed there. */
    std::string service = {};

    /** Runs after each message that changed values, with the properties that really changed. */
    live::Function<T&, const Changes&> on_change = {};

    /** Runs after each change of the state. */
    live::Function<T&, LiveState> on_state = {};
};

/**
 * The properties of an object, followed wherever its service goes.
 *
 * @code
 * using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;
 * bmcbus::Live<Fans> fans(bus, "/com/tamm/bmc/thermal/fans/chassis", {
 *     .on_change = [](Fans& now, const bmcbus::Changes& what) {
 *         if (what.contains("fanPWMData")) check(now.Get_fanPWMData());
 *     },
 * });
 * @endcode
 *
 * **Truth.** The state is `Live` only after a whole read from the present owner of the service, and
 * ends when the loss of the owner, of the interface or of the connection is dispatched. Values of
 * `Lost` and `Reading` are the last ones; `Age()` says since when. A signal of anybody else than
 * the owner changes nothing. A value of another type than the description's is refused with a log
 * line and leaves the old one. Properties that the service invalidates are unset and read anew.
 * What fails is tried again after a pause that grows; nothing polls.
 *
 * **Threads.** Make, move and destroy it on the thread that dispatches the connection; callbacks
 * run there, never inside the constructor. The values, State() and Age() may be read in any thread
 * while the handle lives and stays where it is. No lock is held while a callback runs. A callback
 * may end any handle, its own too; the object that it was given stays until it returns. A
 * `std::exception` from it is logged; nothing else may leave it. The constructor does not block,
 * except that it waits for a default connection to be up.
 *
 * **The object** is one of the generated class whose matches and callbacks are not used: `Create`,
 * `InitialGetAll` and `AddCallback` do nothing for it, and `Release` is not for it.
 *
 * **fork().** A child may only destroy it.
 *
 * Handles of one connection share its match rules, its owners and its reads; each holds the
 * connection until it ends.
 */
template <class T>
class Live
{
  public:
    /** What its construction takes. */
    using Options = LiveOptions<T>;

    /**
     * Follows the object at @p path on @p bus, null for the thread's default system bus.
     *
     * Throws `bmcbus::Error` without a usable connection and for a path or a service that is no
     * such name.
     */
    Live(sd_bus* bus, std::string path, Options options = Options()) :
        handle_(bus, live::Access::TablesOf<T>(), std::move(path), options.service, Wrap(options))
    {
    }

    /** Takes the object; the handle moved from follows none, and says `Absent`. @{ */
    Live(Live&&) noexcept = default;
    Live& operator=(Live&&) noexcept = default;
    /** @} */

    /** The object with its getters. Not after the handle was moved from. */
    T& operator*() const { return *static_cast<T*>(handle_.object()); }
    /** The same. */
    T* operator->() const { return static_cast<T*>(handle_.object()); }

    /** What the values are worth; any thread. */
    LiveState State() const { return handle_.State(); }

    /** How long the values have not been followed: zero while `Live`, nothing before; any thread.
     */
    std::optional<std::chrono::microseconds> Age() const { return handle_.Age(); }

    /** An account of it; on the connection's thread. */
    LiveReport Report() const { return handle_.Report(); }

  private:
    struct TypedHooks final : live::Hooks
    {
        explicit TypedHooks(Options& options) :
            on_change(std::move(options.on_change)), on_state(std::move(options.on_state))
        {
        }
        void Change(void* object, const Changes& changes) override
        {
            if (on_change)
            {
                on_change(*static_cast<T*>(object), changes);
            }
        }
        void State(void* object, LiveState state) override
        {
            if (on_state)
            {
                on_state(*static_cast<T*>(object), state);
            }
        }

        live::Function<T&, const Changes&> on_change;
        live::Function<T&, LiveState> on_state;
    };

    static std::shared_ptr<live::Hooks> Wrap(Options& options)
    {
        if (!options.on_change && !options.on_state)
        {
            return nullptr;
        }
        return std::make_shared<TypedHooks>(options);
    }

    live::Handle handle_;
};

} // namespace bmcbus
