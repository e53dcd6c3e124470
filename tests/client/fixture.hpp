#pragma once

// A private bus with an object that has FanReporting, an object mapper that knows it, and the
// thread's default connection held, as a program with an event loop does.

#include "log_recorder.hpp"

#include <bmcbus/testing.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kit = bmcbus::testing;

using kit::Value;

using Fan = ClientCache::com::tamm::bmc::Thermal::FanReporting;
using FanSignal = ClientCache::FanReporting::notifyFanReportingData;
using FanEdge = ClientEdge::com::tamm::bmc::Thermal::FanReporting;
using FanMap = std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>>;

inline const std::string fanInterface = "com.tamm.bmc.Thermal.FanReporting";
inline const std::string fanService = "com.example.Fans";
inline const std::string fanPath = "/com/example/fans";
inline const FanMap twoFans = {{"fan1", {30, 31, 32, true}}, {"fan2", {40, 41, 42, false}}};

using Lines = std::vector<std::string>;

// One line as tests expect it: level, function, format, and the text where values were put in.
inline std::string Line(int level, const std::string& function, const std::string& message,
                        const std::string& text = {})
{
    const std::string location = "%s.%d.%s: ";
    const std::string format = message.starts_with("EXCEPTION ")
                                   ? "EXCEPTION " + location + message.substr(10)
                                   : location + message;
    return std::to_string(level) + " " + function + " \"" + format + "\" " +
           (text.empty() ? message : text);
}

inline std::string Trace(const std::string& function, const std::string& message,
                         const std::string& text = {})
{
    return Line(9, function, message, text);
}

inline std::string Error(const std::string& function, const std::string& message,
                         const std::string& text = {})
{
    return Line(2, function, message, text);
}

inline std::string Exception(const std::string& function, const std::string& what)
{
    return Error(function, "EXCEPTION %s", "EXCEPTION " + what);
}

// What the classes of FanReporting wrote up to `level` since the last ClearLog(), in order.
inline Lines Logged(int level = 9)
{
    Lines lines;
    for (const test::LogLine& line : test::Log(level))
    {
        if (line.source == 127)
        {
            EXPECT_EQ(line.file, "FanReporting/client_cache.cpp");
            lines.push_back(std::to_string(line.level) + " " + line.function + " \"" + line.format +
                            "\" " + line.text);
        }
    }
    return lines;
}

inline Lines LoggedErrors()
{
    return Logged(2);
}

class ClientTest : public testing::Test
{
  protected:
    explicit ClientTest(const kit::BusLimits& limits = kit::BusLimits::Roomy()) : bus(limits)
    {
        EXPECT_GE(sd_bus_default_system(&connection), 0);
        mapper.Add(fanPath, fanService, {fanInterface});
        fans.Manage(fanPath);
        fans->SetQuietly({{"fanCount", 2}, {"fanPWMData", twoFans}});
        test::ClearLog();
    }

    ~ClientTest() override
    {
        Fan::Cleanup();
        FanSignal::Cleanup();
        sd_bus_flush_close_unref(connection);
    }

    // Handles everything that was sent before.
    void Deliver() { EXPECT_TRUE(kit::DispatchPending(connection)); }

    // A signal of any shape from the object's path.
    void Emit(const std::string& interface, const std::string& member,
              const std::vector<Value>& arguments)
    {
        fans.EmitRaw(fanPath, interface, member, arguments);
        Deliver();
    }

    // PropertiesChanged for the object's interface, or another one.
    void Change(const kit::NamedValues& changed, const std::string& interface = fanInterface)
    {
        fans->EmitPropertiesChanged(interface, changed);
        Deliver();
    }

    // InterfacesAdded and InterfacesRemoved on the object's path.
    void Add(const std::vector<std::pair<std::string, kit::NamedValues>>& interfaces)
    {
        std::vector<std::pair<Value, Value>> entries;
        for (const auto& [name, values] : interfaces)
        {
            entries.emplace_back(name, kit::AsPropertyMap(values));
        }
        Emit("org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
             {kit::Path{fanPath}, Value::Dictionary("s", "a{sv}", entries)});
    }
    void Remove(const std::vector<std::string>& interfaces)
    {
        Emit("org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
             {kit::Path{fanPath}, interfaces});
    }

    kit::PrivateBus bus;
    kit::FakeMapper mapper;
    kit::FakeService fans{fanService, fanPath, {fanInterface}};
    sd_bus* connection = nullptr;
};

// A change callback that counts its calls in the size_t that is its user data.
template <class Class>
void Count(Class*, void* count)
{
    ++*static_cast<size_t*>(count);
}
