#pragma once

// One followed object: what the hub knows about it beside its values.

#include "bus/deadline.hpp"

#include <bmcbus/live/handle.hpp>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace bmcbus::live
{

class Hub;
class Set;
struct Peer;
class Rule;
struct Read;

// Why something did not work: an error's name and text.
struct Failure
{
    std::string name;
    std::string text;
};

// Microseconds of the monotonic clock, with a sign, so that times can be subtracted.
inline int64_t Now()
{
    return static_cast<int64_t>(detail::Now());
}

// Where the next values of an object come from.
enum class Awaits : uint8_t
{
    Nothing,
    Turn,    // in its peer's queue
    Listing, // part of a GetManagedObjects that is under way
    Answer,  // a GetAll of its own is under way
    Rules,   // of a signal: that they are in force
    Pause    // tried again when the pause after a failure is over
};

class Entry
{
  public:
    // An object with properties, and one that sends a signal.
    static std::unique_ptr<Entry> Make(const client::CachedClass& about, std::string path,
                                       std::shared_ptr<Hooks> hooks);
    static std::unique_ptr<Entry> Make(const client::SignalClass& about, std::string path,
                                       std::shared_ptr<Hooks> hooks);
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    const std::string& path() const;
    const char* interface() const
    {
        return signal != nullptr ? signal->interface : properties->interface->name;
    }
    std::mutex& mutex() const;
    // A fingerprint of each value, behind the entry: one piece of memory less.
    uint64_t* prints() { return reinterpret_cast<uint64_t*>(this + 1); }
    bool once_live() const { return stale_since >= 0; }
    LiveState state() const { return state_.load(std::memory_order_acquire); }

    // Enters a state; gives whether it is another one.
    bool Enter(LiveState to);
    // The state of an object that is not there.
    LiveState Gone() const { return once_live() ? LiveState::Lost : LiveState::Absent; }

    const client::Description& about;
    const client::CachedClass* const properties; // null for a signal
    const client::SignalClass* const signal;     // null for an object with properties
    void* const object;
    std::shared_ptr<Hooks> hooks;
    Hub* hub = nullptr; // null once the handle has ended

    // The hub's index.
    uint32_t hash = 0;
    Entry* next = nullptr;

    // Who has it.
    Peer* peer = nullptr;
    bool by_mapper = false;
    bool searched = false; // the mapper is to be asked who has it
    Set* set = nullptr;
    bool added = false;           // of a set: its on_add has run, or is about to
    Rule* changes_rule = nullptr; // its own rules, while its peer has few objects
    Rule* manager_rule = nullptr;

    // What is read.
    Awaits awaits = Awaits::Nothing;
    bool again = false;   // announced while a read was under way
    uint8_t failures = 0; // in a row
    int64_t due = 0;      // end of the pause
    Read* read = nullptr;
    std::unique_ptr<std::vector<uint16_t>> invalidated; // unset, and not told yet

    // The account.
    int64_t since = 0;
    int64_t stale_since = -1; // when the values ceased to be followed; guarded by the mutex
    uint32_t reads = 0;
    uint32_t signals = 0;
    uint32_t strangers = 0;
    uint32_t refused = 0;
    uint32_t missed = 0;
    int64_t slowest = 0;
    std::unique_ptr<Failure> failure;

  private:
    Entry(const client::Description& about, const client::CachedClass* properties,
          const client::SignalClass* signal, void* object, std::shared_ptr<Hooks> hooks);

    static void* operator new(size_t size, size_t prints);
    static void operator delete(void* at, size_t prints);
    static void operator delete(void* at);
    friend std::default_delete<Entry>;

    std::atomic<LiveState> state_{LiveState::Absent};
};

} // namespace bmcbus::live
