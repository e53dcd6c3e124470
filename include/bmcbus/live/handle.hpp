#pragma once

/**
 * @file
 * What the handles of live objects share, compiled once. For the templates in `<bmcbus/live.hpp>`.
 */

#include <bmcbus/live/function.hpp>
#include <bmcbus/live/report.hpp>

namespace bmcbus::live
{

class Entry;

/** How the templates reach the description of a generated class. */
struct Access
{
    template <class T>
    static const auto& About()
    {
        return T::About();
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

    virtual void Change(void* object, const Changes& changes) = 0;
    virtual void State(void* object, LiveState state) = 0;
};

/** One followed object. */
class BMCBUS_EXPORT Handle
{
  public:
    Handle() = default;
    Handle(sd_bus* bus, const client::CachedClass& about, std::string path, std::string service,
           std::shared_ptr<Hooks> hooks);
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
    Entry* entry_ = nullptr;
    void* object_ = nullptr;
};

} // namespace bmcbus::live
