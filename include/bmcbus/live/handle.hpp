#pragma once

/**
 * @file
 * What the handles of live objects share, compiled once. For the templates in `<bmcbus/live.hpp>`.
 */

#include <bmcbus/live/function.hpp>
#include <bmcbus/live/report.hpp>

#include <bmcbus/client/subscriber.hpp>

namespace bmcbus::live
{

class Entry;
class Set;

/** How the templates reach the description of a generated class. */
struct Access
{
    template <class T>
    static const auto& TablesOf()
    {
        return T::LiveTables();
    }
};

/** The callables of a handle, their types forgotten. Kept alive while one of them runs. */
class BMCBUS_EXPORT Hooks
{
  public:
    Hooks() = default;
    virtual ~Hooks();
    Hooks(const Hooks&) = delete;
    Hooks& operator=(const Hooks&) = delete;

    virtual void Change(void* object, const Changes& changes);
    virtual void State(void* object, LiveState state);
    /** Of a set: the object has come, with its values, or has gone. On the connection's thread. */
    virtual void Presence(void* object, bool there);
    /** Of a signal: one arrived, or some may have been missed. On the connection's thread. */
    virtual void Arrived(void* object);
    virtual void Missed(void* object);
};

/** One followed object. */
class BMCBUS_EXPORT Handle
{
  public:
    Handle() = default;
    Handle(sd_bus* bus, const client::CachedClass& about, std::string path,
           const std::string& service, std::shared_ptr<Hooks> hooks);
    Handle(sd_bus* bus, const client::SignalClass& about, std::string path,
           const std::string& service, std::shared_ptr<Hooks> hooks);
    Handle(Handle&& other) noexcept :
        entry_(std::exchange(other.entry_, nullptr)), object_(std::exchange(other.object_, nullptr))
    {
    }
    Handle& operator=(Handle&& other) noexcept;
    ~Handle();

    void* object() const { return object_; }
    LiveState State() const;
    std::optional<std::chrono::microseconds> Age() const;
    LiveReport Report() const;

  private:
    template <class About>
    BMCBUS_LOCAL void Follow(sd_bus* bus, const About& about, std::string& path,
                             const std::string& service, std::shared_ptr<Hooks>& hooks);

    Entry* entry_ = nullptr;
    void* object_ = nullptr;
};

/** Every object of an interface below a path. */
class BMCBUS_EXPORT SetHandle
{
  public:
    SetHandle(sd_bus* bus, const client::CachedClass& about, std::string root,
              const std::string& service, std::shared_ptr<Hooks> hooks);
    SetHandle(SetHandle&& other) noexcept : set_(std::exchange(other.set_, nullptr)) {}
    SetHandle& operator=(SetHandle&& other) noexcept
    {
        SetHandle taken(std::move(other));
        std::swap(set_, taken.set_);
        return *this;
    }
    ~SetHandle();

    size_t size() const;
    void* At(size_t index) const;
    void* Find(std::string_view path) const;
    std::optional<LiveReport> Report(std::string_view path) const;

  private:
    Set* set_ = nullptr;
};

} // namespace bmcbus::live
