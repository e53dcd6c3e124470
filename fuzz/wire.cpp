// Brings a message to the handlers without a bus: over a socket pair, or by parsing its bytes.

#include "wire.hpp"

#include "check.hpp"

#include <sys/socket.h>

#include <cstring>

namespace fuzz
{
namespace
{

using Owned = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

Owned NewSignal(sd_bus* bus, const std::string& path, const std::string& interface,
                const std::string& member, const std::vector<kit::Value>& arguments)
{
    sd_bus_message* raw = nullptr;
    Expect(sd_bus_message_new_signal(bus, &raw, path.c_str(), interface.c_str(), member.c_str()) >=
               0,
           "sd_bus_message_new_signal");
    Owned message(raw, sd_bus_message_unref);
    for (const kit::Value& value : arguments)
    {
        value.Append(raw);
    }
    return message;
}

// What was sent to `fd` and not read yet.
std::vector<uint8_t> Take(int fd)
{
    std::vector<uint8_t> bytes;
    uint8_t part[4096];
    for (ssize_t got = 0; (got = recv(fd, part, sizeof(part), MSG_DONTWAIT)) > 0;)
    {
        bytes.insert(bytes.end(), part, part + got);
    }
    return bytes;
}

// Where the body of a message in this machine's byte order begins.
size_t BodyAt(const std::vector<uint8_t>& message)
{
    constexpr size_t fixed = 16; // the last four bytes are the size of the fields
    uint32_t fields = 0;
    Expect(message.size() >= fixed, "a whole message was sent");
    std::memcpy(&fields, message.data() + fixed - sizeof(fields), sizeof(fields));
    return fixed + (size_t{fields} + 7) / 8 * 8;
}

} // namespace

kit::Peers& Wire::Link()
{
    if (!peers || sd_bus_is_open(peers->Client()) <= 0)
    {
        peers = std::make_unique<kit::Peers>();
    }
    return *peers;
}

sd_bus* Wire::Default()
{
    return Link().Client();
}

void Wire::Deliver()
{
    Link().Pump([] { return false; });
}

void Wire::Signal(const std::string& path, const std::string& interface, const std::string& member,
                  const std::vector<kit::Value>& arguments)
{
    sd_bus* bus = Link().Server();
    const Owned message = NewSignal(bus, path, interface, member, arguments);
    Expect(sd_bus_send(bus, message.get(), nullptr) >= 0, "sd_bus_send");
    Deliver();
}

void Wire::Damaged(Input& input, const std::string& path, const std::string& interface,
                   const std::string& member, const std::vector<kit::Value>& arguments)
{
    sd_bus* bus = Link().Server();
    const Owned message = NewSignal(bus, path, interface, member, arguments);
    Expect(sd_bus_send(bus, message.get(), nullptr) >= 0, "sd_bus_send");
    Expect(sd_bus_flush(bus) >= 0, "sd_bus_flush");
    std::vector<uint8_t> bytes = Take(sd_bus_get_fd(Default()));
    const size_t body = BodyAt(bytes);
    for (size_t count = bytes.size() > body ? 1 + input.Below(4) : 0; count > 0; --count)
    {
        bytes[body + input.Below(bytes.size() - body)] = static_cast<uint8_t>(input.Below(256));
    }
    Expect(send(sd_bus_get_fd(bus), bytes.data(), bytes.size(), 0) ==
               static_cast<ssize_t>(bytes.size()),
           "send");
    Deliver();
}

void Wire::Serve(const Answer& answer)
{
    kit::Peers& link = Link();
    // Both ends have nothing left when neither has moved.
    for (bool moved = true; moved;)
    {
        sd_bus_message* raw = nullptr;
        moved = sd_bus_process(link.Server(), &raw) > 0;
        const Owned call(raw, sd_bus_message_unref);
        if (raw != nullptr && sd_bus_message_is_method_call(raw, nullptr, nullptr) > 0)
        {
            answer(raw);
        }
        moved = sd_bus_process(link.Client(), nullptr) > 0 || moved;
    }
}

void Reply(sd_bus_message* call, const std::vector<kit::Value>& arguments, bool error)
{
    sd_bus_message* raw = nullptr;
    const sd_bus_error some = {"com.example.Error.Some", "text", 0};
    Expect((error ? sd_bus_message_new_method_error(call, &raw, &some)
                  : sd_bus_message_new_method_return(call, &raw)) >= 0,
           "new reply");
    const Owned reply(raw, sd_bus_message_unref);
    for (const kit::Value& value : arguments)
    {
        value.Append(raw);
    }
    Expect(sd_bus_send(sd_bus_message_get_bus(call), raw, nullptr) >= 0, "sd_bus_send");
}

Wire& TheWire()
{
    static Wire wire;
    return wire;
}

} // namespace fuzz

// These take the place of libsystemd's for the whole program.
extern "C"
{
    __attribute__((visibility("default"))) int sd_bus_default_system(sd_bus** bus)
    {
        *bus = sd_bus_ref(fuzz::TheWire().Default());
        return 0;
    }

    __attribute__((visibility("default"))) int sd_bus_get_unique_name(sd_bus* /*bus*/,
                                                                      const char** name)
    {
        *name = ":1.1";
        return 0;
    }
}
