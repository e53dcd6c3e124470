#pragma once

// A service's connection and the thread that may touch it.

#include "fork.hpp"
#include "loop.hpp"

#include <bmcbus/testing/service.hpp>

#include <optional>

namespace bmcbus::testing
{

inline constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";
inline constexpr const char* introspectableInterface = "org.freedesktop.DBus.Introspectable";
inline constexpr const char* peerInterface = "org.freedesktop.DBus.Peer";
inline constexpr const char* managerInterface = "org.freedesktop.DBus.ObjectManager";

// Answers with an error in any case: with the reason where this one may not travel.
void AnswerFailure(sd_bus_message* call, const std::string& name, const std::string& text);

class Service::Link
{
  public:
    Link(Service& owner, const Options& options);

    void Connect();
    void Disconnect(bool orderly);
    bool Up() const;
    // Throws when there is no connection.
    sd_bus* Bus() const;
    void Send(const std::string& path, const std::string& interface, const std::string& member,
              const std::vector<Value>& arguments);
    // Asks the bus for a name; throws when it is refused.
    void Ask(const std::string& name, uint64_t flags);
    // Returns when the bus has handed on every signal so far.
    void Settle() noexcept;

    const Home home;
    std::optional<Loop> loop;
    Owned<sd_bus> bus;

  private:
    static int OnMessage(sd_bus_message* message, void* self, sd_bus_error* error);

    Service& service;
    std::string address;
    Owned<sd_bus_slot> filter;
    bool unsettled = false;
};

template <class Work>
auto Service::OnThread(Work&& work) const -> decltype(work())
{
    if (link->loop->Inside())
    {
        return work();
    }
    // Whoever waits for the work also waits until its signals are on their way.
    struct AtEnd
    {
        Link& link;
        ~AtEnd() { link.Settle(); }
    };
    return link->loop->Run(
        [&]() -> decltype(auto)
        {
            const AtEnd settle{*link};
            return work();
        });
}

// Answers one call with what the object at its path has.
class CallAnswer
{
  public:
    CallAnswer(Service& owner, const Call& received) : service(owner), call(received) {}
    // The out-arguments; throws CallError.
    std::vector<Value> Make();

  private:
    std::vector<Value> Properties();
    std::vector<Value> GetProperty();
    std::vector<Value> SetProperty();
    std::vector<Value> GetAllProperties();
    std::vector<Value> ManagedObjects();
    std::vector<Value> Introspect();
    std::vector<Value> Method();

    Object& Target();
    Object::Slot& Interface(const std::string& name);
    std::string Text(size_t index) const;
    void Expect(const std::string& signature) const;
    std::string Where() const;

    Service& service;
    const Call& call;
};

} // namespace bmcbus::testing
