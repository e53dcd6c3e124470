#pragma once

// The live objects of one connection. One filter sees every message; the hub finds the objects that
// a signal is about, has the message applied as a whole, and runs the callbacks afterwards.
//
// A handle's state:
//
//            owner known, read sent           reply of that owner, whole
//   Absent ------------------------> Reading ---------------------------> Live
//     ^                               |   ^                                |
//     |   owner or object gone,       |   |  owner known, object announced |  owner, object or
//     +------- never Live ------------+   |                                v  connection gone
//                                         +----------------------------- Lost
//
// Every entry point opens a Scope. Callbacks run in Deliver(), when nothing of the hub is half-way;
// they may end and make handles, since what has ended is only freed when the outermost scope ends.

#include "live/index.hpp"
#include "live/peer.hpp"
#include "live/rules.hpp"
#include "live/store.hpp"

#include "bus/call_hub.hpp"

#include <bmcbus/refs.hpp>

#include <functional>
#include <string_view>

namespace bmcbus::live
{

Failure FailureOf(const sd_bus_error* error);

// How long to wait after so many failures in a row, in microseconds.
int64_t PauseAfter(unsigned int failures);

// Whether an object at `path` is among those of a manager there.
bool IsBelow(std::string_view path, std::string_view manager);

// More objects than this are asked for at once where that is possible.
inline constexpr size_t worthListing = 16;

// The longest path that all of them are at or below; `common` is below it, too.
std::string CommonPath(std::string common, const std::vector<Entry*>& entries);

// The interface of a call to ourselves that nobody answers; see Arm().
inline constexpr const char* silence = "com.tamm.bmc.Live.Silence";

// A GetAll that is under way.
struct Read
{
    Hub* hub;
    Entry* entry;
    Slot slot;
};

class Hub
{
  public:
    // What a GetSubTree answers.
    using Tree = std::map<std::string, std::map<std::string, std::vector<std::string>>>;

    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    // The hub of a connection, made where there is none. Throws Error.
    static Hub& Of(sd_bus* bus);
    // Null where there is none.
    static Hub* Find(const sd_bus* bus);

    // From where the hub is entered.
    enum class Entrance : uint8_t
    {
        Handler, // of sd-bus
        Filter,  // the hub's own
        Handle   // its user's code, which is told nothing until the connection is dispatched
    };

    // Between the hub and whoever calls it; the last one frees what has ended.
    class Scope
    {
      public:
        explicit Scope(Hub& hub, Entrance by = Entrance::Handler);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        Hub& hub_;
        const Entrance by_;
    };

    // Runs `work`; logs a std::exception from it.
    template <class Work>
    void Guard(Work work)
    {
        try
        {
            work();
        }
        catch (const std::exception& error)
        {
            LogException(error);
        }
    }
    static void LogException(const std::exception& error);

    sd_bus* bus() const { return bus_.get(); }
    bool usable() const { return bus_ != nullptr; }

    // Handles.
    Entry& Add(std::unique_ptr<Entry> entry, const std::string& service);
    void Remove(Entry& entry);
    void Add(std::unique_ptr<Set> set, const std::string& service);
    void Remove(Set& set);

    // What is to be told, in order.
    void NoteState(Entry& entry, LiveState state);
    void NoteChanges(Entry& entry, std::span<const uint16_t> which);
    enum class What : uint8_t
    {
        State,
        Changes,
        Came,
        Went,
        Arrived,
        Missed
    };
    void Note(Entry& entry, What what);
    void Deliver();

    // States and what they bring.
    void SetState(Entry& entry, LiveState state);
    void ObjectGone(Entry& entry);
    void Lose(Entry& entry);

    // Owners (owners.cpp).
    Peer& PeerOf(const std::string& name);
    Peer* OwnedBy(const char* owner);
    void Attach(Entry& entry, Peer& peer);
    void Detach(Entry& entry);
    void OwnerIs(Peer& peer, const char* owner);

    // Sets (sets.cpp).
    void Member(Set& set, const char* path, const std::string& service);
    void RemoveMember(Entry& entry);
    void ListSets(Peer& peer);
    bool MembersAdded(sd_bus_message* message, const char* path);
    void MembersFound(const Tree& tree);
    void WantSetSearch(Set& set);
    void Listed(Peer& peer, const char* path, sd_bus_message* message);
    void SetsListed(Peer& peer, bool asked);
    bool WantsSetList(const Peer& peer) const;
    void MapperLearned();

    // Which rules (coverage.cpp).
    void Cover(Peer& peer);
    void Uncover(Entry& entry);
    const Rule* Uncovered(const Entry& entry) const; // a rule that was refused, null if none
    void RuleAnswered();
    void Hear(Entry& entry);

    // Reads (reads.cpp).
    void WantRead(Entry& entry);
    void CancelRead(Entry& entry);
    void Flush(); // sends what may be sent
    void ReadFailed(Entry& entry, Failure failure);
    void Tick(); // has Flush run soon, with all that is asked for until then

    // The mapper (search.cpp).
    void WantSearch(Entry& entry);
    void Hint(); // something has happened that the mapper may know more of

    const Index& index() const { return index_; }
    const Rules& rules() const { return rules_; }
    uint64_t needless() const { return needless_; }
    size_t in_flight() const { return in_flight_; }

  private:
    friend class Scope;
    struct Anchor;
    struct Telling
    {
        Entry* entry;
        What what;
        LiveState state;
        uint32_t first = 0; // of its names in names_
        uint32_t count = 0;
    };

    explicit Hub(sd_bus* bus);
    ~Hub();
    void Retire(bool in_filter);
    void Tell(const Telling& telling, std::span<const uint16_t> names);
    void End(Entry& entry);
    bool Unused() const { return index_.size() == 0 && sets_.empty(); }

    // The filter (filter.cpp).
    static int OnMessage(sd_bus_message* message, void* anchor, sd_bus_error* error) noexcept;
    void Signal(sd_bus_message* message, const char* interface);
    void PropertiesChanged(sd_bus_message* message);
    void ApplyChanges(Entry& entry, sd_bus_message* message);
    void Argued(sd_bus_message* message, const char* interface);
    void ApplyArguments(Entry& entry, sd_bus_message* message);
    void ObjectManager(sd_bus_message* message);
    void InterfacesAdded(sd_bus_message* message, const std::vector<Entry*>& entries);
    void InterfacesRemoved(sd_bus_message* message, const std::vector<Entry*>& entries);
    void Announced(Entry& entry, sd_bus_message* values);
    void NameOwnerChanged(sd_bus_message* message);
    void Ended(bool in_filter);

    // More of owners.cpp, coverage.cpp and reads.cpp.
    void AskOwner(Peer& peer);
    void Unsure(Peer& peer, const Failure& failure);
    void AskOwnersAgain();
    static int OnNameOwner(sd_bus_message* answer, void* peer, sd_bus_error* error) noexcept;
    void DropUnusedPeers();

    bool WantsMany(const Peer& peer) const;
    void UseServiceRules(Peer& peer);
    void DropServiceRules(Peer& peer);
    bool UsePathRules(Entry& entry);
    void RetryRules(Entry& entry);

    bool HasRoom(const Peer& peer) const;
    void FlushPeer(Peer& peer);
    void SendRead(Entry& entry);
    static int OnRead(sd_bus_message* answer, void* read, sd_bus_error* error) noexcept;
    void ReadDone(Entry& entry, sd_bus_message* answer);
    void Take(Entry& entry, sd_bus_message* values);
    static int OnTick(sd_bus_message* answer, void* hub, sd_bus_error* error) noexcept;

    // All objects of a service at once (listing.cpp).
    bool List(Peer& peer);
    std::string NextGuess(Peer& peer) const;
    std::string FirstPath(const Peer& peer) const;
    bool AskManager(Peer& peer, const std::string& manager);
    bool AskMapperForManager(Peer& peer);
    void ReadList(Peer& peer, sd_bus_message* answer);
    void ReadObject(Peer& peer, sd_bus_message* answer);
    void ReadInterfaces(Peer& peer, const char* path, sd_bus_message* answer);
    void EndListing(Peer& peer);
    static void ManagerIs(Peer& peer, const std::string& path);
    static int OnListing(sd_bus_message* answer, void* peer, sd_bus_error* error) noexcept;
    static int OnManagers(sd_bus_message* answer, void* peer, sd_bus_error* error) noexcept;

    // What waits for its time (pause.cpp).
    void Pause(Entry& entry);
    void Arm();
    void CheckDue();
    static void OnAlarm(void* hub) noexcept;
    static int OnSilence(sd_bus_message* answer, void* hub, sd_bus_error* error) noexcept;

    // More of search.cpp.
    void Search();
    bool SearchesSets() const;
    bool Searching() const { return !searched_.empty() || SearchesSets(); }
    void EndSearch(Entry& entry);
    void FollowMapper(bool follow);
    void FollowSearched();
    void TakeManager(Peer& peer, const Tree& tree);
    static int OnSearch(sd_bus_message* answer, void* hub, sd_bus_error* error) noexcept;
    static const std::string* NextService(const Tree::mapped_type& services, const char* interface,
                                          const Peer* last, const Peer* only = nullptr);
    void Found(sd_bus_message* answer);
    void SearchAgain();
    void SearchElsewhere(const Peer& peer);

    BusRef bus_; // null once the connection has ended
    Slot filter_;
    Anchor* anchor_ = nullptr; // the filter's
    Hub* next_ = nullptr;      // in its thread's list
    int depth_ = 0;            // of scopes
    bool in_filter_ = false;
    bool told_ = false; // callbacks have run

    Index index_;
    Rules rules_{*this};
    std::map<std::string, Peer> peers_;
    size_t paths_ = 0;                          // objects with rules of their own
    std::vector<std::unique_ptr<Entry>> ended_; // freed by the outermost scope, as ended_sets_
    std::vector<std::unique_ptr<Set>> sets_;
    std::vector<std::unique_ptr<Set>> ended_sets_;
    Decoder decoder_;             // keeps its memory from message to message
    std::vector<Telling> notes_;  // what is to be told
    std::vector<uint16_t> names_; // of properties, for the notes

    Slot tick_;
    size_t in_flight_ = 0;
    std::vector<Entry*> pausing_;
    detail::Alarm alarm_;
    Slot silence_;        // a timer in the place of the alarm, where no loop looks at that
    bool denied_ = false; // the bus forbids such a call
    int64_t timer_due_ = 0;
    int64_t owners_due_ = 0;
    uint8_t owner_failures_ = 0; // in a row
    bool unused_ = false;        // a peer may have nobody left
    bool flush_ = false;         // something waits to be sent when the message was handled
    size_t signals_ = 0;         // entries that are signals
    size_t many_ = 0;            // services with rules of their own
    uint64_t needless_ = 0;      // messages that a service's rules brought for nobody

    std::vector<Entry*> searched_;
    Slot search_; // the question that is under way
    bool search_again_ = false;
    uint8_t searches_ = 0; // repetitions of one that left something to be found
    int64_t search_due_ = 0;
    std::string asked_; // the one object that the search is for; empty: all
    std::vector<Rule*> mapper_rules_;
    Rule* searched_rule_ = nullptr; // announcements of what nobody has yet
};

} // namespace bmcbus::live
