// Interfaces are objects of their own and rows of a table at once: what a client writes into the
// one shows in the other. One of them is plugged and unplugged as time passes.

#include "network.hpp"

#include "descriptions.hpp"

#include <bmcbus/testing/fake_event_log.hpp>

#include <algorithm>
#include <iostream>
#include <tuple>

namespace simulator
{
namespace
{

constexpr const char* portInterface = "com.tamm.ovrik.wharfd.OSLogicalNetworkInterface";
constexpr const char* tableInterface = "com.tamm.ovrik.wharfd.OSLogicalNetworkInterfaces";
constexpr const char* root = "/com/tamm/ovrik/wharfd/network";
constexpr size_t nameColumn = 2;
constexpr uint64_t plugSteps = 8; // how long the plugged interface stays, and stays away
constexpr uint64_t linkSteps = 5; // how long the second link is up, and down

std::string PathOf(const std::string& name)
{
    return std::string(root) + "/" + name;
}

const std::vector<bmcbus::testing::PropertyDescription>& Columns()
{
    return Describe(portInterface).properties;
}

} // namespace

Network::Network(const Model& machine, const Setting& setting) :
    Part("com.tamm.ovrik.wharfd.wharfd", "/com/tamm/ovrik/wharfd", setting),
    model(machine),
    table(Add(root, tableInterface))
{
    bmcbus::testing::ServeEventLog(service, [](const bmcbus::testing::EventLogEntry& entry)
                                   { std::cout << "event: " << entry.Text() << std::endl; });
    Attach({"eth0", "Management port", 10});
    Attach({"eth1", "Port shared with the host", 11});
    table.OnWrite("OSLogicalNetworkInterfaces", [this](const Value& rows) { TakeTable(rows); });
    Publish();
}

NamedValues Network::Values(const Port& port) const
{
    using Pairs = std::vector<std::tuple<std::string, std::string>>;
    using Addresses = std::vector<std::tuple<std::string, std::string, uint32_t>>;
    using Addresses6 = std::vector<std::tuple<std::string, uint32_t, uint32_t, uint32_t, uint32_t>>;
    using Servers = std::vector<std::tuple<std::string, uint32_t>>;
    const std::string number = std::to_string(port.number);
    const std::string name = port.name;
    const std::string mac = "02:00:00:00:00:" + number;
    return {
        {"OSLogicalNetworkFQDD", "OSLogicalNetwork." + name},
        {"FQDD", "NIC.Embedded." + name},
        {"ifName", name},
        {"ifDescription", port.text},
        {"ifStatus", 1},
        {"ifType", 6},
        {"isDHCPEnabled", 1},
        {"dhcpServerV4", "192.0.2.1"},
        {"dhcpServerV6", "2001:db8::1"},
        {"macAddrStr", mac},
        {"subnetMask", "255.255.255.0"},
        {"scope", 0},
        {"prefixLen", 24},
        {"hostName", "bmc"},
        {"fqdn", "bmc.example.com"},
        {"isInterfaceEnabled", 1},
        {"maxIpv6Addresses", 16},
        {"mtuSize", 1500},
        {"numVlans", 2},
        {"vlanId", std::vector<uint32_t>{1, 100}},
        {"vlanStatus", 1},
        {"NICPhyAddrInfo", Pairs{{"permanent", mac}, {"current", mac}}},
        {"Ipv4Info", Addresses{{"192.0.2." + number, "255.255.255.0", 1}}},
        {"Ipv6Info",
         Addresses6{{"2001:db8::" + number, 64, 1, 0, 0}, {"fe80::" + number, 64, 2, 0, 0}}},
        {"GateWay", Servers{{"192.0.2.1", 4}, {"2001:db8::1", 6}}},
        {"DNSServer", Servers{{"192.0.2.53", 4}}},
    };
}

void Network::Attach(const Port& port)
{
    Object& object = Add(PathOf(port.name), portInterface, Values(port));
    for (const auto& column : Columns())
    {
        object.OnWrite(column.name,
                       [this, &object, name = column.name](const Value& written)
                       {
                           object.SetQuietly({{name, written}});
                           PublishTable();
                       });
    }
}

void Network::Detach(const Port& port)
{
    service.RemoveObject(PathOf(port.name));
}

void Network::Publish()
{
    const Port stick{"usb0", "Network adapter on the front panel", 12};
    const std::vector<std::string> paths = service.Paths();
    const bool present = std::find(paths.begin(), paths.end(), PathOf(stick.name)) != paths.end();
    const bool wanted = model.steps / plugSteps % 2 == 1;
    if (wanted && !present)
    {
        Attach(stick);
    }
    if (!wanted && present)
    {
        Detach(stick);
    }
    Update(service.ObjectAt(PathOf("eth1")), {{"ifStatus", model.steps / linkSteps % 2}});
    PublishTable();
}

std::vector<Object*> Network::Ports()
{
    std::vector<Object*> ports;
    for (const std::string& path : service.Paths())
    {
        if (path.starts_with(PathOf("")))
        {
            ports.push_back(&service.ObjectAt(path));
        }
    }
    return ports;
}

void Network::PublishTable()
{
    std::string rowType = "(";
    for (const auto& column : Columns())
    {
        rowType += column.type;
    }
    rowType += ")";
    std::vector<Value> rows;
    for (const Object* port : Ports())
    {
        rows.push_back(Value::Struct(
            PerEach(Columns(), [&](const auto& column) { return port->Get(column.name); })));
    }
    Update(table, {{"OSLogicalNetworkInterfaces", Value::Array(rowType, rows)}});
}

void Network::TakeTable(const Value& rows)
{
    // Where interfaces share a name, each row has one of them, in their order.
    std::vector<Object*> left = Ports();
    std::vector<Object*> ports;
    for (const Value& row : rows.Children())
    {
        const Value& name = row.Children().at(nameColumn);
        const auto found = std::find_if(left.begin(), left.end(),
                                        [&](const Object* port)
                                        { return port->Get(Columns()[nameColumn].name) == name; });
        if (found == left.end())
        {
            throw CallError(SD_BUS_ERROR_INVALID_ARGS,
                            "There is no interface for the row " + name.Body());
        }
        ports.push_back(*found);
        left.erase(found);
    }
    for (size_t at = 0; at < ports.size(); ++at)
    {
        NamedValues values;
        for (size_t i = 0; i < Columns().size(); ++i)
        {
            values.emplace_back(Columns()[i].name, rows.Children()[at].Children().at(i));
        }
        Update(*ports[at], values);
    }
}

} // namespace simulator
