#pragma once

/**
 * @file
 * What a generated header needs of the run-time half; the tables behind it are for the sources.
 *
 * Every source that uses a generated class compiles this, so it includes next to nothing.
 */

#include <bmcbus/export.h>
#include <bmcbus/refs.hpp>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace bmcbus::live
{
struct Access; // NOLINT(bugprone-forward-declaration-namespace): not the one of bmcbus::client
} // namespace bmcbus::live

namespace bmcbus::client
{

struct CachedClass;
struct Description;
struct Field;
struct SignalClass;
struct Type;

/** One entry of a list of change callbacks, its function's type forgotten. */
struct Callback
{
    void (*function)();
    void* user_data;
};

/** The change callbacks of an object. */
class Callbacks;

/** The calling thread's number; no two threads of a process ever have the same. */
BMCBUS_EXPORT uint32_t ThreadNumber();

/**
 * An object as the run-time half sees it: the object itself and the description of its class. It
 * is the user data of the object's subscriptions and of its pending calls.
 *
 * The destructor cancels what is pending and tells the signal handlers that are running that the
 * object is gone, so a callback may release the very object that called it.
 */
class BMCBUS_EXPORT Anchor
{
  public:
    Anchor(void* object, const Description& about) :
        object_(object), about_(&about), thread_(ThreadNumber())
    {
    }
    ~Anchor();
    Anchor(const Anchor&) = delete;
    Anchor& operator=(const Anchor&) = delete;

    void* object() const { return object_; }
    /** The number of the thread that made the object. */
    uint32_t thread() const { return thread_; }
    const Description& about() const { return *about_; }

    /** @name The object's members; the mutex guards all but the path. @{ */
    std::mutex& mutex() const;
    const std::string& path() const;
    bool& ready() const;
    uint32_t& signal_count() const;
    Callbacks*& callbacks() { return callbacks_; }
    /** @} */

    /** A field's value, and its type in the class's types. */
    void* Value(const Field& field) const;
    const Type& TypeOf(const Field& field) const;
    bool& IsSet(size_t field) const;

    /** Keeps a request that is under way. */
    BMCBUS_LOCAL void Await(Slot request);
    /** Drops the request whose reply is being handled. */
    BMCBUS_LOCAL void Answered();

    /** Lives on the stack while callbacks run. Linked and unlinked under the object's mutex. */
    class BMCBUS_LOCAL Running
    {
      public:
        explicit Running(Anchor& anchor);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

        bool gone() const { return anchor_ == nullptr; }

      private:
        friend Anchor;
        Anchor* anchor_;
        Running* next_ = nullptr;
    };

  private:
    struct Request;

    void* object_;
    const Description* about_;
    uint32_t thread_;
    Callbacks* callbacks_ = nullptr;
    Request* pending_ = nullptr;
    Running* running_ = nullptr;
};

} // namespace bmcbus::client
