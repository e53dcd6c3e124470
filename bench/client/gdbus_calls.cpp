// GDBus's asynchronous calls, 20 in flight, in a main loop.

#include "fans.hpp"
#include "in_flight.hpp"

#include <gio/gio.h>

namespace bench
{
namespace
{

struct Flight : InFlight
{
    using InFlight::InFlight;

    GDBusConnection* bus = nullptr;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
};

void OnReply(GObject* bus, GAsyncResult* result, gpointer user)
{
    auto& flight = *static_cast<Flight*>(user);
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, nullptr);
    Check(reply != nullptr, "reply");
    gint32 status = -1;
    g_variant_get(reply, "(i)", &status);
    Check(status == 0, "status");
    g_variant_unref(reply);
    if (flight.Arrived())
    {
        g_main_loop_quit(flight.loop);
    }
}

} // namespace

void GDBusCalls(long count)
{
    Flight flight(count);
    flight.bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    Check(flight.bus != nullptr, "g_bus_get_sync");
    flight.send = [&]
    {
        g_dbus_connection_call(flight.bus, fans::service, fans::path, fans::interface,
                               "updateFanPWMData", g_variant_new("(sy)", "Fan1", 40),
                               g_variant_type_checked_("(i)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                               OnReply, &flight);
    };
    flight.Begin();
    g_main_loop_run(flight.loop);
    g_main_loop_unref(flight.loop);
    g_object_unref(flight.bus);
}

} // namespace bench
