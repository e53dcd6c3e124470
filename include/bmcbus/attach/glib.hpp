#pragma once

/**
 * @file
 * A connection in GLib's main loop. The program links GLib itself.
 */

#include <bmcbus/attach/end.hpp>
#include <glib.h>

#include <memory>
#include <new>
#include <utility>

namespace bmcbus::attach
{

/**
 * Has a `GMainContext` dispatch a connection, for as long as this object lives.
 *
 * Make and destroy it on the thread that runs the context. Keeps the connection, not the context;
 * one that goes first ends the dispatch. A forked child may destroy it.
 *
 * @code
 * GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
 * bmcbus::attach::GLib attached(nullptr, nullptr, [&](int) { g_main_loop_quit(loop); });
 * g_main_loop_run(loop);
 * @endcode
 */
class GLib
{
  public:
    /**
     * Does not block.
     *
     * @param context  null means the global default context
     * @param bus  null means the calling thread's default system bus
     * @throws bmcbus::Error when the connection has ended or descriptors are scarce
     */
    explicit GLib(GMainContext* context = nullptr, sd_bus* bus = nullptr, EndHandler onEnd = {}) :
        link(std::make_shared<detail::Link>(bus, std::move(onEnd))),
        source(g_source_new(&functions, sizeof(Source)))
    {
        auto* const own = reinterpret_cast<Source*>(source);
        new (&own->link) std::shared_ptr<detail::Link>(link);
        own->watch = g_source_add_unix_fd(source, link->Descriptor(), G_IO_IN);
        g_source_attach(source, context);
    }

    /** The same for a wrapped connection. */
    GLib(GMainContext* context, Bus& bus, EndHandler onEnd = {}) :
        GLib(context, Connection(bus), std::move(onEnd))
    {
    }

    ~GLib()
    {
        link->Detach();
        g_source_destroy(source);
        g_source_unref(source);
    }

    GLib(const GLib&) = delete;
    GLib& operator=(const GLib&) = delete;

  private:
    // GLib makes and frees it: a source with what is ours behind.
    struct Source
    {
        GSource base;
        std::shared_ptr<detail::Link> link;
        gpointer watch;
    };

    static gboolean OnPrepare(GSource* source, gint* timeout)
    {
        *timeout = -1;
        reinterpret_cast<Source*>(source)->link->Prepare();
        return FALSE;
    }

    static gboolean OnCheck(GSource* source)
    {
        const gpointer watch = reinterpret_cast<Source*>(source)->watch;
        return g_source_query_unix_fd(source, watch) != 0;
    }

    static gboolean OnReady(GSource* source, GSourceFunc /*callback*/, gpointer /*data*/)
    {
        const std::shared_ptr<detail::Link> link = reinterpret_cast<Source*>(source)->link;
        const int ended = link->Dispatch();
        if (ended < 0)
        {
            g_source_destroy(source);
            link->End(ended);
        }
        return link->Attached() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
    }

    static void OnFinalize(GSource* source)
    {
        reinterpret_cast<Source*>(source)->link.~shared_ptr();
    }

    inline static GSourceFuncs functions = {OnPrepare,  OnCheck, OnReady,
                                            OnFinalize, nullptr, nullptr};

    std::shared_ptr<detail::Link> link;
    GSource* source;
};

} // namespace bmcbus::attach
