#pragma once

/**
 * @file
 * A D-Bus service made from introspection XML: objects, their values, and what they announce.
 *
 * @code
 * Service service({"com.example.Fans"});                       // connected, on its own thread
 * Object& fans = service.AddObject("/fans", {"com.tamm.bmc.Thermal.FanReporting"});
 * fans.Set("fanCount", 4);                                     // emits PropertiesChanged
 * fans.Set({{"fanCount", 5}, {"fanPWMData", readings}});       // one signal for both
 * fans.Emit("notifyFanReportingData", 5, readings);
 * fans.OnCall("updateFanPWMData", [](const Call&) -> std::vector<Value> { return {0}; });
 * @endcode
 *
 * A program that has an event loop already gives it to the constructor and gets no thread:
 * @code
 * Service service({"com.example.Fans"}, {.loop = event});
 * sd_event_loop(event);
 * @endcode
 *
 * The service answers org.freedesktop.DBus.Properties, .Introspectable, .Peer and, where asked to,
 * .ObjectManager, so that busctl and every binding can talk to it.
 *
 * **Object managers.** Objects that come, go and change their interfaces are announced with
 * InterfacesAdded and InterfacesRemoved from the path of the nearest object manager at or above
 * them, as real services do; without one, nothing is announced. Service::Manage() says where there
 * is one, usually at the root of the service's objects. Who listens on the object's own path, as
 * the cached proxies do, hears these signals only when the object is its own manager:
 * @code
 * service.Manage("/fans");                 // before AddObject("/fans", ...), so that it is
 * announced
 * @endcode
 *
 * **Threads.** With a thread of its own any thread may call any member of Service and Object; a
 * call is carried out on the service's thread and returns when it is done. When a call that emits
 * a signal has returned, the bus has handed the signal on: a match installed afterwards does not
 * see it, a match installed before does. With a caller's loop all members belong to the thread that
 * runs it, and signals are queued. Handlers run on the service's thread; they may use the service.
 *
 * **Names of members.** Where a property, method or signal is named, the bare name is enough as
 * long as one interface of the object has it; "interface.member" always works. An unknown or
 * ambiguous name throws std::invalid_argument that names service, path and member.
 *
 * **Failures** of the bus are std::system_error. After fork() the child must not use the object;
 * destroying it there, also by exit(), harms nothing.
 */

#include <bmcbus/testing/description.hpp>
#include <bmcbus/testing/value.hpp>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bmcbus::testing
{

/** A method call as the service received it. */
struct Call
{
    std::string sender;           /**< unique name of the caller */
    std::string path;             /**< object that was called */
    std::string interface;        /**< may be empty: callers may leave it out */
    std::string member;           /**< method */
    std::vector<Value> arguments; /**< in order */

    /** Signature and arguments as `busctl call` takes them: `ss "com.example.Fans" "fanCount"`. */
    std::string Arguments() const { return TextOf(arguments); }
};

/**
 * What a handler throws to answer with a D-Bus error.
 *
 * A name that is no error name, or text that is not UTF-8 or holds a zero byte, cannot be sent: the
 * caller then gets "org.freedesktop.DBus.Error.Failed" with a text that says so.
 */
class CallError : public std::runtime_error
{
  public:
    /** @param name error name such as "com.example.Error.Broken"; @param text its message. */
    CallError(std::string name, const std::string& text) :
        std::runtime_error(text), errorName(std::move(name))
    {
    }
    /** The D-Bus error name. */
    const std::string& Name() const { return errorName; }

  private:
    std::string errorName;
};

/**
 * Answers a method call with its out-arguments; throws CallError for an error reply.
 *
 * Whatever else it throws, and out-arguments that no message can carry, are answered with
 * "org.freedesktop.DBus.Error.Failed" and the reason.
 */
using CallHandler = std::function<std::vector<Value>(const Call&)>;

/** Sees a property value that a client writes, before it is stored; throws CallError to refuse. */
using WriteHook = std::function<void(const Value&)>;

class Service;

/**
 * One object of a service, owned by it; see the file's comment for threads and names.
 *
 * Every property has the default value of its type until it is set.
 */
class Object
{
  public:
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    ~Object();

    /** Where the object is. */
    const std::string& ObjectPath() const { return path; }

    /** The names of the object's interfaces, in byte order. */
    std::vector<std::string> Interfaces() const;

    /**
     * Stores a value and announces it with PropertiesChanged.
     *
     * The value is converted to the declared type; one that does not fit, or that no message can
     * carry, such as text that is not UTF-8, throws std::invalid_argument and changes nothing.
     */
    void Set(const std::string& property, const Value& value);

    /** Stores several values and announces them with one signal per interface. */
    void Set(const NamedValues& values);

    /** Stores values without a signal. */
    void SetQuietly(const NamedValues& values);

    /** The value that a client would read. */
    Value Get(const std::string& property) const;

    /** Has @p hook see what clients write to @p property. */
    void OnWrite(const std::string& property, WriteHook hook);

    /**
     * Has @p handler answer calls of @p method. Without one, the answer is the default value of
     * every out-argument.
     */
    void OnCall(const std::string& method, CallHandler handler);

    /** Emits a signal of the description; arguments are converted to the declared types. */
    template <class... A>
    void Emit(const std::string& signal, const A&... arguments)
    {
        EmitValues(signal, {Value(arguments)...});
    }

    /** The same with the arguments in a vector. */
    void EmitValues(const std::string& signal, const std::vector<Value>& arguments);

    /** Emits any signal with any arguments from this path, whatever the description says. */
    void EmitRaw(const std::string& interface, const std::string& member,
                 const std::vector<Value>& arguments);

    /**
     * Emits PropertiesChanged with exactly these contents, stored values untouched: any interface,
     * unknown names, wrong types, the same name twice.
     */
    void EmitPropertiesChanged(const std::string& interface, const NamedValues& changed,
                               const std::vector<std::string>& invalidated = {});

    /**
     * Stores values and announces with PropertiesChanged that they are other ones, without saying
     * which: the names go out as invalidated, one signal per interface.
     */
    void Invalidate(const NamedValues& values);

    /** Adds an interface and announces it with InterfacesAdded from the object's manager. */
    void AddInterface(const std::string& interface, const NamedValues& values = {});

    /** The same from a description. */
    void AddInterface(InterfaceDescription description, const NamedValues& values = {});

    /**
     * Removes an interface with its values and hooks; announces it with InterfacesRemoved from the
     * object's manager.
     */
    void RemoveInterface(const std::string& interface);

    /**
     * Emits InterfacesAdded for all interfaces of the object with their current values from the
     * object's manager. Throws std::invalid_argument when it has none.
     */
    void EmitInterfacesAdded();

    /** Emits InterfacesRemoved with these names in the same way; nothing is removed. */
    void EmitInterfacesRemoved(const std::vector<std::string>& interfaces);

  private:
    friend class Service;
    friend class CallAnswer;

    struct Slot
    {
        InterfaceDescription description;
        std::map<std::string, Value> values;
        std::map<std::string, WriteHook> hooks;
        std::map<std::string, CallHandler> handlers;
    };

    Object(Service& owner, std::string where);

    // Everything below runs on the service's thread.
    struct Found
    {
        Slot* slot = nullptr;
        std::string member;
    };
    template <class Has>
    Found Find(const std::string& name, const char* kind, Has has) const;
    Found FindProperty(const std::string& name) const;
    [[noreturn]] void Refuse(const std::string& what) const;
    Slot& Insert(InterfaceDescription description, const NamedValues& values);
    std::map<std::string, NamedValues> Store(const NamedValues& values);
    bool Answers(const std::string& method) const;
    std::string Manager() const;
    void RequireManager() const;
    void Announce(const std::map<std::string, NamedValues>& changes);
    NamedValues Readable(const Slot& slot) const;
    Value AllInterfaces(const std::string& only = {}) const;
    void SendAdded(const Value& interfaces);
    void SendRemoved(const std::vector<std::string>& interfaces);
    void SendFromManager(const char* signal, const Value& interfaces);

    Service& service;
    const std::string path;
    mutable std::map<std::string, Slot> slots;
};

/** A connection with names and objects; see the file's comment. */
class Service
{
  public:
    /** How a service is connected and run. */
    struct Options
    {
        /** The loop to run on, referenced; null: a thread of the service's own. */
        sd_event* loop = nullptr;
        /** Bus address; empty: the system bus as DBUS_SYSTEM_BUS_ADDRESS names it right now. */
        std::string address = {};
    };

    /**
     * Sees every call before it is answered, on the service's thread.
     *
     * @return true when it took the call: the service then sends no answer. The message is
     *         borrowed; reference it to answer later. When it throws, the caller gets
     *         "org.freedesktop.DBus.Error.Failed" with the reason.
     */
    using Interceptor = std::function<bool(const Call& call, sd_bus_message* message)>;

    /**
     * Connects and requests the names; blocks until the bus granted them.
     *
     * Throws std::system_error when there is no bus or a name is taken.
     */
    explicit Service(std::vector<std::string> wellKnown, const Options& options);
    /** The same on a thread of its own. */
    explicit Service(std::vector<std::string> wellKnown = {}) :
        Service(std::move(wellKnown), Options())
    {
    }

    /** Leaves the bus; blocks until the thread has ended. Not to be called from a handler. */
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /**
     * Adds an object with interfaces that FindInterface() knows and announces it with
     * InterfacesAdded from its manager.
     *
     * @return the object, owned by the service until RemoveObject() or the service's end
     */
    Object& AddObject(const std::string& path, const std::vector<std::string>& interfaces,
                      const NamedValues& values = {});

    /** The same from descriptions, see ParseDescription() and LoadDescription(). */
    Object& AddObject(const std::string& path, std::vector<InterfaceDescription> interfaces,
                      const NamedValues& values = {});

    /**
     * Announces the loss of all interfaces with InterfacesRemoved from the object's manager and
     * destroys the object.
     */
    void RemoveObject(const std::string& path);

    /** The object at @p path; throws std::invalid_argument when there is none. */
    Object& ObjectAt(const std::string& path);

    /** All paths with an object, in byte order. */
    std::vector<std::string> Paths() const;

    /**
     * Has an object manager at @p root: it lists the objects below it, except those below another
     * manager in between, and their announcements come from there; so do those of an object at
     * @p root itself. Nothing happens when there is one already.
     */
    void Manage(const std::string& root);

    /** Where there are object managers, in byte order. */
    std::vector<std::string> Managers() const;

    /** Has none at @p root any more, without a signal. */
    void Unmanage(const std::string& root);

    /**
     * True when an object has a method of that name, or one of the standard interfaces does; a
     * service without objects may get any, and answers all.
     */
    bool Answers(const std::string& method) const;

    /** Well-known names, first the one given first. */
    const std::vector<std::string>& Names() const { return names; }

    /** Unique name of the current connection; empty while there is none. */
    std::string UniqueName() const;

    /** Gives up a name, stays connected. */
    void ReleaseName(const std::string& name);

    /** Requests a name (again). Throws std::system_error when it is taken. */
    void RequestName(const std::string& name);

    /**
     * Takes a name from another Service that has it, in one step: observers see its owner replaced,
     * not gone and come. The other one stays connected, and asks for the name again when it is
     * started again. Throws std::system_error when the name's owner is no Service.
     */
    void TakeName(const std::string& name);

    /** Ends the connection as a service that is stopped does. Objects and values stay. */
    void Stop();

    /** Ends the connection at once, with calls unanswered and signals unsent, as a crash does. */
    void Crash();

    /** Connects again after Stop(), Crash() or the bus's end, and requests all names. */
    void Start();

    /** True while the connection is up. */
    bool Connected() const;

    /** Puts @p sees in front of every answer; an empty one removes it. */
    void Intercept(Interceptor sees);

    /** Emits any signal from any path. Throws std::system_error when not connected. */
    void EmitRaw(const std::string& path, const std::string& interface, const std::string& member,
                 const std::vector<Value>& arguments);

    /**
     * Runs @p work on the service's thread and waits for it; exceptions come back.
     *
     * For what needs the connection itself: Connection() is valid inside.
     */
    void Run(const std::function<void()>& work) const;

    /** The connection, borrowed, for work inside Run() and handlers; null while there is none. */
    sd_bus* Connection() const;

    /** The loop that the service runs on, borrowed, for timers made inside Run() and handlers. */
    sd_event* EventLoop() const;

    /** Answers as if no Interceptor had taken the call, on the service's thread. */
    void Answer(const Call& call, sd_bus_message* message);

    /**
     * Answers a call that an Interceptor took with any values, on the service's thread.
     *
     * Values that no message can carry throw std::system_error, and nothing is sent.
     */
    static void Reply(sd_bus_message* call, const std::vector<Value>& values);

    /**
     * Answers a call with an error, on the service's thread.
     *
     * A name that is no error name, or text that is not UTF-8 or holds a zero byte, throws
     * std::invalid_argument, and nothing is sent.
     */
    static void ReplyError(sd_bus_message* call, const std::string& name, const std::string& text);

  private:
    friend class Object;
    friend class FakeService;
    friend class CallAnswer;
    class Link;

    template <class Work>
    auto OnThread(Work&& work) const -> decltype(work());
    void AskForName(const std::string& name, uint64_t flags);
    std::string ManagerAbove(const std::string& path) const;

    std::vector<std::string> names;
    std::map<std::string, std::unique_ptr<Object>> objects;
    std::string first; // path of the object that was added first
    std::set<std::string> managers;
    Interceptor interceptor;
    std::unique_ptr<Link> link;
};

} // namespace bmcbus::testing
