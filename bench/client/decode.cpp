// Decoding a signal or a reply into an object, against the same decoding written by hand on sd-bus
// into a plain struct. One contender per process, chosen by name; an instruction counter compares
// runs of different length, so that what comes before and after drops out.

#include <async_ops.hpp>
#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>

#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

using Power = ClientCache::com::tamm::bmc::power::PowerReporting;
using Notify = ClientCache::PowerReporting::NotifyPwrReportingData;

namespace
{

constexpr const char* interface = "com.tamm.bmc.power.PowerReporting";

struct Member
{
    const char* name;
    const char* type;
};

// The properties, then what the signal has beyond the first fifty of them.
constexpr Member properties[] = {
#include "power_members.inc"
};
constexpr size_t propertyCount = 55;
constexpr const char* signalTail[] = {"ad", "ad", "ad", "ad", "ad", "ad", "ay", "as", "au", "ad",
                                      "ad", "ad", "ad", "ad", "ad", "ad", "d",  "d",  "d",  "d"};

// The struct of the hand-written contenders.
struct Slot
{
    std::vector<uint8_t> bytes;
    std::vector<uint16_t> shorts;
    std::vector<uint32_t> words;
    std::vector<double> doubles;
    std::vector<std::string> texts;
    uint64_t number = 0;
    double real = 0;
};

struct Plain
{
    Slot slots[70];
};

void Check(int result, const char* what)
{
    if (result < 0)
    {
        std::fprintf(stderr, "%s: %s\n", what, std::strerror(-result));
        std::exit(1);
    }
}

void Append(sd_bus_message* message, const char* type)
{
    static constexpr uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    static constexpr uint16_t shorts[8] = {100, 200, 300, 400, 500, 600, 700, 800};
    static constexpr uint32_t words[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    static constexpr double doubles[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const auto array = [&](const void* data, size_t size)
    {
        Check(sd_bus_message_append_array(message, type[1], data, size), "append array");
    };
    if (type[0] != 'a')
    {
        static constexpr uint64_t zero = 0;
        const double real = 12.5;
        Check(sd_bus_message_append_basic(message, type[0],
                                          type[0] == 'd' ? static_cast<const void*>(&real)
                                                         : static_cast<const void*>(&zero)),
              "append");
        return;
    }
    switch (type[1])
    {
        case 'y':
            return array(bytes, sizeof(bytes));
        case 'q':
            return array(shorts, sizeof(shorts));
        case 'u':
            return array(words, sizeof(words));
        case 'd':
            return array(doubles, sizeof(doubles));
        default:
            Check(sd_bus_message_append(message, "as", 8, "VR0", "VR1", "VR2", "VR3", "VR4", "VR5",
                                        "VR6", "VR7"),
                  "append as");
    }
}

void AppendProperties(sd_bus_message* message)
{
    // In ascending order of the names, as services send their maps.
    std::map<std::string_view, const char*> sorted;
    for (size_t i = 0; i < propertyCount; ++i)
    {
        sorted[properties[i].name] = properties[i].type;
    }
    Check(sd_bus_message_open_container(message, 'a', "{sv}"), "open");
    for (const auto& [name, type] : sorted)
    {
        Check(sd_bus_message_open_container(message, 'e', "sv"), "open");
        Check(sd_bus_message_append_basic(message, 's', name.data()), "append");
        Check(sd_bus_message_open_container(message, 'v', type), "open");
        Append(message, type);
        sd_bus_message_close_container(message);
        sd_bus_message_close_container(message);
    }
    Check(sd_bus_message_close_container(message), "close");
}

sd_bus_message* ChangedMessage(sd_bus* bus)
{
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_signal(bus, &message, "/power", "org.freedesktop.DBus.Properties",
                                    "PropertiesChanged"),
          "new signal");
    sd_bus_message_append_basic(message, 's', interface);
    AppendProperties(message);
    sd_bus_message_append(message, "as", 0);
    Check(sd_bus_message_seal(message, 1, 0), "seal");
    return message;
}

sd_bus_message* AllMessage(sd_bus* bus)
{
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_signal(bus, &message, "/power", interface, "Reply"), "new signal");
    AppendProperties(message);
    Check(sd_bus_message_seal(message, 1, 0), "seal");
    return message;
}

sd_bus_message* NotifyMessage(sd_bus* bus)
{
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_signal(bus, &message, "/power", interface, "NotifyPwrReportingData"),
          "new signal");
    for (size_t i = 0; i < 50; ++i)
    {
        Append(message, properties[i].type);
    }
    for (const char* type : signalTail)
    {
        Append(message, type);
    }
    Check(sd_bus_message_seal(message, 1, 0), "seal");
    return message;
}

template <class T>
void ReadArray(sd_bus_message* message, char type, std::vector<T>& into)
{
    const void* data = nullptr;
    size_t size = 0;
    Check(sd_bus_message_read_array(message, type, &data, &size), "read array");
    const T* first = static_cast<const T*>(data);
    into.assign(first, first + size / sizeof(T));
}

void ReadByHand(sd_bus_message* message, const char* type, Slot& slot)
{
    if (type[0] == 'd')
    {
        Check(sd_bus_message_read_basic(message, 'd', &slot.real), "read");
        return;
    }
    if (type[0] != 'a')
    {
        Check(sd_bus_message_read_basic(message, type[0], &slot.number), "read");
        return;
    }
    switch (type[1])
    {
        case 'y':
            return ReadArray(message, 'y', slot.bytes);
        case 'q':
            return ReadArray(message, 'q', slot.shorts);
        case 'u':
            return ReadArray(message, 'u', slot.words);
        case 'd':
            return ReadArray(message, 'd', slot.doubles);
        default:
            break;
    }
    slot.texts.clear();
    Check(sd_bus_message_enter_container(message, 'a', "s"), "enter");
    const char* text = nullptr;
    while (sd_bus_message_read_basic(message, 's', &text) > 0)
    {
        slot.texts.emplace_back(text);
    }
    sd_bus_message_exit_container(message);
}

const std::map<std::string_view, size_t>& Index()
{
    static const auto* index = []
    {
        auto* made = new std::map<std::string_view, size_t>;
        for (size_t i = 0; i < propertyCount; ++i)
        {
            (*made)[properties[i].name] = i;
        }
        return made;
    }();
    return *index;
}

void PropertiesByHand(sd_bus_message* message, Plain& plain)
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
            ReadByHand(message, type, plain.slots[found->second]);
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

using Work = std::function<void()>;

Work Repeat(sd_bus_message* message, const std::function<void(sd_bus_message*)>& once)
{
    return [=]
    {
        sd_bus_message_rewind(message, 1);
        once(message);
    };
}

Work Contender(const std::string& name, sd_bus* bus)
{
    static Plain plain;
    if (name == "changed-floor")
    {
        return Repeat(ChangedMessage(bus),
                      [](sd_bus_message* message)
                      {
                          const char* which = nullptr;
                          sd_bus_message_read_basic(message, 's', &which);
                          if (std::strcmp(which, interface) == 0)
                          {
                              PropertiesByHand(message, plain);
                          }
                      });
    }
    if (name == "all-floor")
    {
        return Repeat(AllMessage(bus),
                      [](sd_bus_message* message)
                      {
                          PropertiesByHand(message, plain);
                      });
    }
    if (name == "notify-floor")
    {
        return Repeat(NotifyMessage(bus),
                      [](sd_bus_message* message)
                      {
                          for (size_t i = 0; i < 50; ++i)
                          {
                              ReadByHand(message, properties[i].type, plain.slots[i]);
                          }
                          for (size_t i = 0; i < 20; ++i)
                          {
                              ReadByHand(message, signalTail[i], plain.slots[50 + i]);
                          }
                      });
    }
    if (name == "notify")
    {
        static auto* signal = new Notify("/power");
        return Repeat(NotifyMessage(bus),
                      [](sd_bus_message* message)
                      {
                          bmcbus::Message wrapped(message);
                          signal->ObjectCallback(wrapped);
                      });
    }
    static auto* object = new Power("/power", "no.such.service", true);
    if (name == "changed")
    {
        return Repeat(ChangedMessage(bus),
                      [](sd_bus_message* message)
                      {
                          bmcbus::Message wrapped(message);
                          object->ObjectCallbackChanged(wrapped);
                      });
    }
    if (name == "all")
    {
        return Repeat(
            AllMessage(bus),
            [](sd_bus_message* message)
            {
                using Request = Async::Ops::detail::Request<Power::Variant>;
                Request request{[](bool ok, std::map<std::string, Power::Variant>& values, void* to)
                                {
                                    Power::GetPropertiesAsyncCallback(ok, values, to);
                                },
                                object};
                Async::Ops::Internal_GetAllProperties_Callback<Power::Variant>(message, &request,
                                                                               nullptr);
            });
    }
    std::fprintf(stderr, "no contender '%s'\n", name.c_str());
    std::exit(2);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        std::fprintf(stderr, "usage: %s CONTENDER COUNT\n", argv[0]);
        return 2;
    }
    sd_bus* bus = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    const Work work = Contender(argv[1], bus);
    for (long i = std::atol(argv[2]); i > 0; --i)
    {
        work();
    }
    sd_bus_flush_close_unref(bus);
    return 0;
}
