// Decoding a signal or a reply into an object, against the same decoding written by hand on sd-bus
// into a plain struct. One contender per process; an instruction counter compares runs of different
// length, so that what comes before and after drops out.
//
//   bench-decode library|floor|sdbus-c++|gdbus all|changed|notify COUNT
//   bench-decode library|floor all|changed[-declared|-shuffled] COUNT

#include "power.hpp"

#include <async_ops.hpp>
#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>

#include <systemd/sd-bus.h>

using Power = ClientCache::com::tamm::bmc::power::PowerReporting;
using Notify = ClientCache::PowerReporting::NotifyPwrReportingData;

namespace
{

using namespace bench;
using namespace bench::power;

template <class T>
void Append(sd_bus_message* message, const char* type, const T& value)
{
    Check(sd_bus_message_append_basic(message, type[0], &value), "append");
}

template <class T>
void Append(sd_bus_message* message, const char* type, const std::vector<T>& values)
{
    Check(sd_bus_message_append_array(message, type[1], values.data(), values.size() * sizeof(T)),
          "append array");
}

void Append(sd_bus_message* message, const char*, const std::vector<std::string>& texts)
{
    Check(sd_bus_message_open_container(message, 'a', "s"), "open");
    for (const std::string& text : texts)
    {
        Check(sd_bus_message_append_basic(message, 's', text.c_str()), "append");
    }
    Check(sd_bus_message_close_container(message), "close");
}

void AppendSample(sd_bus_message* message, const char* type)
{
    WithMember(type, [&](auto member) { Append(message, type, Sample().*member); });
}

void AppendProperties(sd_bus_message* message, std::string_view order)
{
    Check(sd_bus_message_open_container(message, 'a', "{sv}"), "open");
    for (const size_t number : Order(order))
    {
        const auto& [name, type] = properties[number];
        Check(sd_bus_message_open_container(message, 'e', "sv"), "open");
        Check(sd_bus_message_append_basic(message, 's', name), "append");
        Check(sd_bus_message_open_container(message, 'v', type), "open");
        AppendSample(message, type);
        sd_bus_message_close_container(message);
        sd_bus_message_close_container(message);
    }
    Check(sd_bus_message_close_container(message), "close");
}

// The reply's contents travel in a signal, which can be sealed without a call.
sd_bus_message* MakeMessage(const std::string& what, const std::string& order)
{
    sd_bus* bus = nullptr;
    sd_bus_message* message = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    const bool changed = what == "changed";
    Check(sd_bus_message_new_signal(bus, &message, path, changed ? propertiesInterface : interface,
                                    changed ? "PropertiesChanged" : power::signal),
          "new signal");
    if (what == "notify")
    {
        for (size_t i = 0; i < argumentCount; ++i)
        {
            AppendSample(message, ArgumentType(i));
        }
    }
    else
    {
        Check(changed ? sd_bus_message_append_basic(message, 's', interface) : 0, "append");
        AppendProperties(message, order);
        Check(changed ? sd_bus_message_append(message, "as", 0) : 0, "append");
    }
    Check(sd_bus_message_seal(message, 1, 0), "seal");
    return message;
}

template <class T>
void Read(sd_bus_message* message, const char* type, T& into)
{
    Check(sd_bus_message_read_basic(message, type[0], &into), "read");
}

template <class T>
void Read(sd_bus_message* message, const char* type, std::vector<T>& into)
{
    const void* data = nullptr;
    size_t size = 0;
    Check(sd_bus_message_read_array(message, type[1], &data, &size), "read array");
    const T* first = static_cast<const T*>(data);
    into.assign(first, first + size / sizeof(T));
}

void Read(sd_bus_message* message, const char*, std::vector<std::string>& into)
{
    into.clear();
    Check(sd_bus_message_enter_container(message, 'a', "s"), "enter");
    const char* text = nullptr;
    while (sd_bus_message_read_basic(message, 's', &text) > 0)
    {
        into.emplace_back(text);
    }
    sd_bus_message_exit_container(message);
}

void ReadByHand(sd_bus_message* message, const char* type, Slot& slot)
{
    WithMember(type, [&](auto member) { Read(message, type, slot.*member); });
}

void PropertiesByHand(sd_bus_message* message, Object& object)
{
    Check(sd_bus_message_enter_container(message, 'a', "{sv}"), "enter");
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0)
    {
        const char* name = nullptr;
        sd_bus_message_read_basic(message, 's', &name);
        const auto found = Index().find(name);
        const char* contents = nullptr;
        sd_bus_message_peek_type(message, nullptr, &contents);
        if (found != Index().end() && std::strcmp(contents, properties[found->second].type) == 0)
        {
            const char* type = properties[found->second].type;
            Check(sd_bus_message_enter_container(message, 'v', type), "enter");
            ReadByHand(message, type, object.slots[found->second]);
            sd_bus_message_exit_container(message);
        }
        else
        {
            sd_bus_message_skip(message, "v");
        }
        sd_bus_message_exit_container(message);
    }
    sd_bus_message_exit_container(message);
}

using Handler = void (*)(sd_bus_message*);

Handler ByHand(const std::string& what)
{
    static Object object;
    if (what == "changed")
    {
        return [](sd_bus_message* message)
        {
            const char* which = nullptr;
            sd_bus_message_read_basic(message, 's', &which);
            if (std::strcmp(which, interface) == 0)
            {
                PropertiesByHand(message, object);
            }
        };
    }
    if (what == "all")
    {
        return [](sd_bus_message* message) { PropertiesByHand(message, object); };
    }
    return [](sd_bus_message* message)
    {
        for (size_t i = 0; i < argumentCount; ++i)
        {
            ReadByHand(message, ArgumentType(i), object.slots[i]);
        }
    };
}

Handler Library(const std::string& what)
{
    if (what == "notify")
    {
        static auto* subscriber = new Notify(path);
        return [](sd_bus_message* message)
        {
            bmcbus::Message wrapped(message);
            subscriber->ObjectCallback(wrapped);
        };
    }
    static auto* object = new Power(path, "no.such.service", true);
    if (what == "changed")
    {
        return [](sd_bus_message* message)
        {
            bmcbus::Message wrapped(message);
            object->ObjectCallbackChanged(wrapped);
        };
    }
    return [](sd_bus_message* message)
    {
        using Request = Async::Ops::detail::Request<Power::Variant>;
        Request request{[](bool ok, std::map<std::string, Power::Variant>& values, void* to)
                        { Power::GetPropertiesAsyncCallback(ok, values, to); },
                        object};
        Async::Ops::Internal_GetAllProperties_Callback<Power::Variant>(message, &request, nullptr);
    };
}

Work Contender(const std::string& who, const std::string& work)
{
    const size_t dash = work.find('-');
    if (who != "floor" && who != "library")
    {
        // Their messages are in the order of the names.
        return dash == work.npos ? Peer(who, work) : Peer("", work);
    }
    const std::string what = work.substr(0, dash);
    sd_bus_message* message = MakeMessage(what, dash == work.npos ? "" : work.substr(dash + 1));
    Handler handler = who == "floor" ? ByHand(what) : Library(what);
    return [=]
    {
        sd_bus_message_rewind(message, 1);
        handler(message);
    };
}

} // namespace

int main(int argc, char** argv)
{
    const Arguments arguments(argc, argv);
    const Work work = Contender(arguments.who, arguments.what);
    for (long i = arguments.count; i > 0; --i)
    {
        work();
    }
    return 0;
}
