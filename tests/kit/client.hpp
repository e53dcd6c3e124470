#pragma once

// A client on plain sd-bus, for looking at the kit from the other side of the bus.

#include <bmcbus/testing/value.hpp>

#include <systemd/sd-bus.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace test
{

using bmcbus::testing::Value;

class Client
{
  public:
    struct Answer
    {
        std::string error; // name of the error, empty for a reply
        std::vector<Value> values;
        std::string reason = {}; // the text of the error

        std::string Text() const { return error.empty() ? bmcbus::testing::TextOf(values) : error; }
    };

    explicit Client(const char* address = nullptr)
    {
        const int result = address == nullptr ? sd_bus_open_system(&bus) : OpenAt(address);
        if (result < 0)
        {
            throw std::runtime_error("cannot connect");
        }
    }
    ~Client() { sd_bus_flush_close_unref(bus); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    operator sd_bus*() const { return bus; }

    std::string UniqueName() const
    {
        const char* name = nullptr;
        sd_bus_get_unique_name(bus, &name);
        return name == nullptr ? "" : name;
    }

    // `timeout` 0: the connection's default.
    Answer Call(const std::string& service, const std::string& path, const std::string& interface,
                const std::string& member, const std::vector<Value>& arguments = {},
                uint64_t timeout = 0) const
    {
        sd_bus_message* call = nullptr;
        sd_bus_message* reply = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        if (sd_bus_message_new_method_call(bus, &call, service.c_str(), path.c_str(),
                                           interface.empty() ? nullptr : interface.c_str(),
                                           member.c_str()) < 0)
        {
            return {"no call", {}};
        }
        for (const Value& argument : arguments)
        {
            argument.Append(call);
        }
        Answer answer;
        if (sd_bus_call(bus, call, timeout, &error, &reply) < 0)
        {
            answer.error = error.name == nullptr ? "unnamed" : error.name;
            answer.reason = error.message == nullptr ? "" : error.message;
        }
        else
        {
            answer.values = Value::ReadAll(reply);
        }
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(call);
        return answer;
    }

    Answer Properties(const std::string& service, const std::string& path,
                      const std::string& member, const std::vector<Value>& arguments) const
    {
        return Call(service, path, "org.freedesktop.DBus.Properties", member, arguments);
    }

    // Collects the signals that fit `rule` as "path member arguments".
    void Collect(const std::string& rule, std::vector<std::string>& signals) const
    {
        if (sd_bus_add_match(bus, nullptr, rule.c_str(), Store, &signals) < 0)
        {
            throw std::runtime_error("match rule refused");
        }
    }

  private:
    int OpenAt(const char* address)
    {
        sd_bus_new(&bus);
        sd_bus_set_address(bus, address);
        sd_bus_set_bus_client(bus, 1);
        return sd_bus_start(bus);
    }

    static int Store(sd_bus_message* message, void* signals, sd_bus_error*)
    {
        const std::string text = std::string(sd_bus_message_get_path(message)) + " " +
                                 sd_bus_message_get_member(message) + " " +
                                 bmcbus::testing::TextOf(Value::ReadAll(message));
        static_cast<std::vector<std::string>*>(signals)->push_back(text);
        return 0;
    }

    sd_bus* bus = nullptr;
};

} // namespace test
