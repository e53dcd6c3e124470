// GDBus. It has a thread that writes to and reads from the socket and parses what comes; here a
// message's bytes are parsed by the thread that decodes the values.

#include "fans.hpp"
#include "power.hpp"

#include <gio/gio.h>

#include <memory>

namespace bench
{
namespace
{

struct Unref
{
    void operator()(GVariant* value) const { g_variant_unref(value); }
    void operator()(gpointer object) const { g_object_unref(object); }
};

using Variant = std::unique_ptr<GVariant, Unref>;
using Message = std::unique_ptr<GDBusMessage, Unref>;

void Require(const void* result, const GError* error)
{
    if (result == nullptr)
    {
        static_cast<void>(std::fprintf(stderr, "%s\n", error->message));
        std::exit(1);
    }
}

template <class T>
GVariant* Wrap(const char* type, const std::vector<T>& values)
{
    return g_variant_new_fixed_array(g_variant_type_element(g_variant_type_checked_(type)),
                                     values.data(), values.size(), sizeof(T));
}

GVariant* Wrap(const char*, const std::vector<std::string>& texts)
{
    std::vector<const char*> pointers;
    pointers.reserve(texts.size());
    for (const std::string& text : texts)
    {
        pointers.push_back(text.c_str());
    }
    return g_variant_new_strv(pointers.data(), static_cast<gssize>(pointers.size()));
}

GVariant* Wrap(const char* type, auto value)
{
    return g_variant_new(type, value);
}

GVariant* SampleVariant(const char* type)
{
    GVariant* value = nullptr;
    power::WithMember(type, [&](auto member) { value = Wrap(type, power::Sample().*member); });
    return value;
}

GVariant* SampleValues()
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sv}"));
    for (const auto& [name, number] : power::Index())
    {
        g_variant_builder_add(&builder, "{sv}", name.data(),
                              SampleVariant(power::properties[number].type));
    }
    return g_variant_builder_end(&builder);
}

GVariant* SampleArguments()
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    for (size_t i = 0; i < power::argumentCount; ++i)
    {
        g_variant_builder_add_value(&builder, SampleVariant(power::ArgumentType(i)));
    }
    return g_variant_builder_end(&builder);
}

struct Bytes
{
    guchar* data;
    gsize size;
};

// As they come from the socket.
Bytes MakeMessage(const std::string& what)
{
    const bool changed = what == "changed";
    const Message message(
        g_dbus_message_new_signal(power::path, changed ? propertiesInterface : power::interface,
                                  changed ? "PropertiesChanged" : power::signal));
    GVariant* body = nullptr;
    if (changed)
    {
        body = g_variant_new("(s@a{sv}as)", power::interface, SampleValues(), nullptr);
    }
    else if (what == "all")
    {
        body = g_variant_new("(@a{sv})", SampleValues());
    }
    else
    {
        body = SampleArguments();
    }
    g_dbus_message_set_body(message.get(), body);
    g_dbus_message_set_serial(message.get(), 1);
    GError* error = nullptr;
    Bytes bytes{};
    bytes.data =
        g_dbus_message_to_blob(message.get(), &bytes.size, G_DBUS_CAPABILITY_FLAGS_NONE, &error);
    Require(bytes.data, error);
    return bytes;
}

void Read(GVariant* value, uint8_t& into)
{
    into = g_variant_get_byte(value);
}

void Read(GVariant* value, uint16_t& into)
{
    into = g_variant_get_uint16(value);
}

void Read(GVariant* value, uint32_t& into)
{
    into = g_variant_get_uint32(value);
}

void Read(GVariant* value, double& into)
{
    into = g_variant_get_double(value);
}

template <class T>
void Read(GVariant* value, std::vector<T>& into)
{
    gsize count = 0;
    const auto* first = static_cast<const T*>(g_variant_get_fixed_array(value, &count, sizeof(T)));
    into.assign(first, first + count);
}

void Read(GVariant* value, std::vector<std::string>& into)
{
    into.clear();
    GVariantIter texts;
    g_variant_iter_init(&texts, value);
    const char* text = nullptr;
    while (g_variant_iter_next(&texts, "&s", &text))
    {
        into.emplace_back(text);
    }
}

void Read(GVariant* value, const char* type, power::Slot& slot)
{
    power::WithMember(type, [&](auto member) { Read(value, slot.*member); });
}

void Store(GVariant* values, power::Object& object)
{
    GVariantIter entries;
    g_variant_iter_init(&entries, values);
    const char* name = nullptr;
    GVariant* raw = nullptr;
    while (g_variant_iter_next(&entries, "{&sv}", &name, &raw))
    {
        const Variant value(raw);
        const auto found = power::Index().find(name);
        if (found != power::Index().end() &&
            std::strcmp(g_variant_get_type_string(raw), power::properties[found->second].type) == 0)
        {
            Read(raw, power::properties[found->second].type, object.slots[found->second]);
        }
    }
}

void OnChanged(GVariant* body, power::Object& object)
{
    const char* which = nullptr;
    GVariant* values = nullptr;
    g_variant_get(body, "(&s@a{sv}@as)", &which, &values, nullptr);
    const Variant owner(values);
    if (std::strcmp(which, power::interface) == 0)
    {
        Store(values, object);
    }
}

void OnReply(GVariant* body, power::Object& object)
{
    const Variant values(g_variant_get_child_value(body, 0));
    Store(values.get(), object);
}

void OnNotify(GVariant* body, power::Object& object)
{
    for (size_t i = 0; i < power::argumentCount; ++i)
    {
        const Variant argument(g_variant_get_child_value(body, i));
        Read(argument.get(), power::ArgumentType(i), object.slots[i]);
    }
}

Work Decode(const std::string& what)
{
    static power::Object object;
    const auto handler = what == "changed" ? OnChanged : what == "all" ? OnReply : OnNotify;
    return [=, bytes = MakeMessage(what)]
    {
        GError* error = nullptr;
        const Message message(g_dbus_message_new_from_blob(bytes.data, bytes.size,
                                                           G_DBUS_CAPABILITY_FLAGS_NONE, &error));
        Require(message.get(), error);
        handler(g_dbus_message_get_body(message.get()), object);
    };
}

using Connection = std::unique_ptr<GDBusConnection, Unref>;

// Shared by the process, as its users have it, or of its own.
Connection Connect(bool shared)
{
    GError* error = nullptr;
    GDBusConnection* bus = nullptr;
    if (shared)
    {
        bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    }
    else
    {
        bus = g_dbus_connection_new_for_address_sync(
            std::getenv("DBUS_SYSTEM_BUS_ADDRESS"),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
    }
    Require(bus, error);
    return Connection(bus);
}

Variant Call(GDBusConnection* bus, const char* interface, const char* method, GVariant* arguments,
             const char* type)
{
    GError* error = nullptr;
    Variant reply(g_dbus_connection_call_sync(bus, fans::service, fans::path, interface, method,
                                              arguments, g_variant_type_checked_(type),
                                              G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error));
    Require(reply.get(), error);
    return reply;
}

void Get(GDBusConnection* bus)
{
    const Variant reply = Call(bus, propertiesInterface, "Get",
                               g_variant_new("(ss)", fans::interface, "fanCount"), "(v)");
    GVariant* raw = nullptr;
    g_variant_get(reply.get(), "(v)", &raw);
    const Variant value(raw);
    Check(g_variant_get_byte(raw) == fans::present, "value");
}

void Update(GDBusConnection* bus)
{
    const Variant reply =
        Call(bus, fans::interface, "updateFanPWMData", g_variant_new("(sy)", "Fan1", 40), "(i)");
    gint32 status = -1;
    g_variant_get(reply.get(), "(i)", &status);
    Check(status == 0, "status");
}

// Its proxy reads all properties and follows their changes.
void Create(GDBusConnection* bus)
{
    GError* error = nullptr;
    GDBusProxy* const proxy =
        g_dbus_proxy_new_sync(bus, G_DBUS_PROXY_FLAGS_NONE, nullptr, fans::service, fans::path,
                              fans::interface, nullptr, &error);
    Require(proxy, error);
    {
        const Variant value(g_dbus_proxy_get_cached_property(proxy, "fanCount"));
        Check(value && g_variant_get_byte(value.get()) == fans::present, "value");
    }
    g_object_unref(proxy);
}

Work OnHeldConnection(const std::string& what)
{
    static const Connection bus = Connect(true);
    const auto once = what == "get" ? Get : what == "call" ? Update : Create;
    return [=] { once(bus.get()); };
}

Work OnOwnConnection(const std::string& what)
{
    const auto once = what == "first" ? Create : Get;
    return [=]
    {
        const Connection bus = Connect(false);
        once(bus.get());
        GError* error = nullptr;
        Check(g_dbus_connection_close_sync(bus.get(), nullptr, &error) != 0, "close");
    };
}

} // namespace

Work GDBus(const std::string& what)
{
    if (what == "get" || what == "call" || what == "create")
    {
        return OnHeldConnection(what);
    }
    return what == "get-taken" || what == "first" ? OnOwnConnection(what) : Decode(what);
}

} // namespace bench
