// The comparison by hand: the same work as the generated class does, written with sd-bus alone.

#include "fans.hpp"

namespace bench::fans
{
namespace
{

int OnOther(sd_bus_message*, void*, sd_bus_error*)
{
    return 0;
}

} // namespace

Plain::Plain(sd_bus* bus, const std::string& objectPath, void (*onChange)()) : changed(onChange)
{
    const std::string of = "path='" + objectPath + "',";
    const std::string rules[] = {
        "type='signal',member='PropertiesChanged'," + of +
            "interface='org.freedesktop.DBus.Properties',",
        "type='signal',member='InterfacesAdded'," + of,
        "type='signal',member='InterfacesRemoved'," + of,
    };
    for (int i = 0; i < 3; ++i)
    {
        Check(
            sd_bus_add_match(bus, &slots[i], rules[i].c_str(), i == 0 ? OnChanged : OnOther, this),
            "sd_bus_add_match");
    }
}

Plain::~Plain()
{
    for (sd_bus_slot* slot : slots)
    {
        sd_bus_slot_unref(slot);
    }
}

void Plain::Read(sd_bus* bus, const char* from, const char* objectPath)
{
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    Check(
        sd_bus_message_new_method_call(bus, &call, from, objectPath, propertiesInterface, "GetAll"),
        "new call");
    sd_bus_message_append_basic(call, 's', interface);
    Check(sd_bus_call(bus, call, 0, &error, &reply), "call");
    Store(reply);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    sd_bus_error_free(&error);
}

int Plain::OnChanged(sd_bus_message* message, void* user, sd_bus_error*)
{
    const char* which = nullptr;
    sd_bus_message_read_basic(message, 's', &which);
    if (std::strcmp(which, interface) == 0)
    {
        auto* const plain = static_cast<Plain*>(user);
        plain->Store(message);
        plain->changed();
    }
    return 0;
}

void Plain::Store(sd_bus_message* message)
{
    sd_bus_message_enter_container(message, 'a', "{sv}");
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0)
    {
        const char* name = nullptr;
        const char* contents = nullptr;
        sd_bus_message_read_basic(message, 's', &name);
        sd_bus_message_peek_type(message, nullptr, &contents);
        if (std::strcmp(name, "fanCount") == 0 && std::strcmp(contents, "y") == 0)
        {
            sd_bus_message_enter_container(message, 'v', "y");
            sd_bus_message_read_basic(message, 'y', &fanCount);
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

} // namespace bench::fans
