#pragma once

/**
 * @file
 * All live objects below a path.
 */

#include <bmcbus/live/handle.hpp>
#include <bmcbus/live/stepper.hpp>

namespace bmcbus
{

/** What `LiveSet` may be told beside the path; every member may be left out. */
template <class T>
struct LiveSetOptions
{
    /** The bus name whose objects are wanted; empty: those of every service that the mapper names.
     */
    std::string service = {};

    /** Runs when an object has come and its values are live. */
    live::Function<T&> on_add = {};

    /** Runs when an object has gone from a service that is there; the object ends afterwards. */
    live::Function<T&> on_remove = {};

    /** As for `Live`, after on_add. */
    live::Function<T&, const Changes&> on_change = {};

    /** As for `Live`, after on_add: `Lost` when the service has gone, and what follows. */
    live::Function<T&, LiveState> on_state = {};
};

/**
 * Every object of an interface below a path, each as `Live` would follow it.
 *
 * @code
 * bmcbus::LiveSet<Dimm> dimms(bus, "/com/tamm/bmc/memory", {
 *     .on_add = [](Dimm& dimm) { show(dimm); },
 *     .on_remove = [](Dimm& dimm) { hide(dimm.Path()); },
 * });
 * for (Dimm& dimm : dimms) ...
 * @endcode
 *
 * Objects are found by the service's object manager, or by the object mapper, and by what managers
 * announce later. When a service goes, its objects stay, lost; when it comes back without one of
 * them, that one is removed.
 *
 * Threads, callbacks, failures and fork() are as for `Live`. Walking, Find() and size() belong on
 * the connection's thread; objects may be read in any thread until on_remove has returned. While a
 * callback runs, objects may have come that on_add has not been called for yet.
 */
template <class T>
class LiveSet
{
  public:
    /** What its construction takes. */
    using Options = LiveSetOptions<T>;

    /** Follows the objects below @p root, not the one at it; otherwise as the constructor of
     * `Live`. */
    LiveSet(sd_bus* bus, std::string root, Options options = Options()) :
        handle_(bus, live::Access::TablesOf<T>(), std::move(root), options.service,
                std::make_shared<TypedHooks>(options))
    {
    }

    /** Takes the objects; the set moved from follows none, and is empty. @{ */
    LiveSet(LiveSet&&) noexcept = default;
    LiveSet& operator=(LiveSet&&) noexcept = default;
    /** @} */

    /** Walks over the objects in the order of their paths; valid until the connection is
     * dispatched. */
    class Iterator : public live::Stepper<Iterator, size_t>
    {
      public:
        /** As the standard's algorithms want it. @{ */
        using value_type = T;
        using difference_type = std::ptrdiff_t;

        Iterator() = default;
        Iterator(const live::SetHandle* set, size_t at) :
            live::Stepper<Iterator, size_t>(at), set_(set)
        {
        }
        T& operator*() const { return *static_cast<T*>(set_->At(this->at_)); }
        T* operator->() const { return static_cast<T*>(set_->At(this->at_)); }
        /** @} */

      private:
        const live::SetHandle* set_ = nullptr;
    };

    /** The objects as a range. @{ */
    Iterator begin() const { return {&handle_, 0}; }
    Iterator end() const { return {&handle_, handle_.size()}; }
    size_t size() const { return handle_.size(); }
    bool empty() const { return handle_.size() == 0; }
    /** @} */

    /** The object at @p path, null where there is none. */
    T* Find(std::string_view path) const { return static_cast<T*>(handle_.Find(path)); }

    /** What the object at @p path is worth; `Absent` where there is none. */
    LiveState State(std::string_view path) const
    {
        const std::optional<LiveReport> report = handle_.Report(path);
        return report ? report->state : LiveState::Absent;
    }

    /** An account of the object at @p path; nothing where there is none. */
    std::optional<LiveReport> Report(std::string_view path) const { return handle_.Report(path); }

  private:
    struct TypedHooks final : live::Hooks
    {
        // The service is taken beside this, in whichever order.
        explicit TypedHooks(Options& options) :
            told{.service = {},
                 .on_add = std::move(options.on_add),
                 .on_remove = std::move(options.on_remove),
                 .on_change = std::move(options.on_change),
                 .on_state = std::move(options.on_state)}
        {
        }
        void Change(void* object, const Changes& changes) override
        {
            if (told.on_change)
            {
                told.on_change(*static_cast<T*>(object), changes);
            }
        }
        void State(void* object, LiveState state) override
        {
            if (told.on_state)
            {
                told.on_state(*static_cast<T*>(object), state);
            }
        }
        void Presence(void* object, bool there) override
        {
            const live::Function<T&>& callback = there ? told.on_add : told.on_remove;
            if (callback)
            {
                callback(*static_cast<T*>(object));
            }
        }

        Options told;
    };

    live::SetHandle handle_;
};

} // namespace bmcbus
