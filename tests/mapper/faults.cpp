#include "faults.hpp"

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdarg>
#include <string_view>

// These take the place of libsystemd's for the whole program.

namespace
{

thread_local std::string_view failing;
thread_local bool silently = false;

template <class Function>
Function* Real(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

#define INSTEAD(function, ...)                                                                     \
    if (failing == #function)                                                                      \
    {                                                                                              \
        return -ENOMEM;                                                                            \
    }                                                                                              \
    static const auto real = Real(function, #function);                                            \
    return real(__VA_ARGS__)

extern "C"
{
    __attribute__((visibility("default"))) int
    sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** m, const char* destination,
                                   const char* path, const char* interface, const char* member)
    {
        if (silently)
        {
            return 0;
        }
        INSTEAD(sd_bus_message_new_method_call, bus, m, destination, path, interface, member);
    }

    __attribute__((visibility("default"))) int sd_bus_message_append(sd_bus_message* m,
                                                                     const char* types, ...)
    {
        if (failing == "sd_bus_message_append")
        {
            return -ENOMEM;
        }
        va_list values;
        va_start(values, types);
        const int result = sd_bus_message_appendv(m, types, values);
        va_end(values);
        return result;
    }

    __attribute__((visibility("default"))) int
    sd_bus_message_open_container(sd_bus_message* m, char type, const char* contents)
    {
        INSTEAD(sd_bus_message_open_container, m, type, contents);
    }

    __attribute__((visibility("default"))) int sd_bus_message_close_container(sd_bus_message* m)
    {
        INSTEAD(sd_bus_message_close_container, m);
    }

    __attribute__((visibility("default"))) int sd_bus_call_async(sd_bus* bus, sd_bus_slot** slot,
                                                                 sd_bus_message* m,
                                                                 sd_bus_message_handler_t callback,
                                                                 void* userdata, uint64_t usec)
    {
        INSTEAD(sd_bus_call_async, bus, slot, m, callback, userdata, usec);
    }
}

Failing::Failing(const char* function)
{
    failing = function;
}

Failing::~Failing()
{
    failing = {};
}

FailingSilently::FailingSilently()
{
    silently = true;
}

FailingSilently::~FailingSilently()
{
    silently = false;
}
