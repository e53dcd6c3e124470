// What is asked of the event log, for any texts.

#include "check.hpp"
#include "counting_sink.hpp"
#include "wire.hpp"

#include <qzlog_via_dbus.hpp>

namespace
{

using namespace fuzz;

// Each argument's bytes and a zero, then one more zero, as digits.
std::string Digits(const std::vector<std::string>& arguments)
{
    std::string bytes;
    for (const std::string& argument : arguments)
    {
        bytes += argument + std::string(1, '\0');
    }
    bytes += '\0';
    std::string digits;
    for (const char byte : bytes)
    {
        char two[3];
        std::snprintf(two, sizeof(two), "%02x", static_cast<unsigned int>(byte) & 0xffU);
        digits += two;
    }
    return digits;
}

struct Entry
{
    uint16_t agent;
    uint16_t category;
    uint16_t severity;
    std::string id;
    std::string message;
    std::string fqdd;
    std::vector<std::string> arguments;
};

std::vector<kit::Value> Request(const Entry& entry)
{
    std::vector<std::tuple<uint16_t, std::string>> items;
    if (!entry.message.empty())
    {
        items.emplace_back(uint16_t{2}, entry.message);
    }
    if (!entry.fqdd.empty())
    {
        items.emplace_back(uint16_t{3}, entry.fqdd);
    }
    if (!entry.arguments.empty())
    {
        items.emplace_back(uint16_t{6}, Digits(entry.arguments));
    }
    return {entry.category, uint32_t{0}, entry.agent, entry.severity, int64_t{0}, entry.id, items};
}

// The text, now and then with a byte that may not travel.
std::string MaybeWrong(Input& input, bool& travels)
{
    std::string text = input.Text();
    if (input.OnceIn(32))
    {
        travels = false;
        text += input.OnceIn(2) ? '\0' : '\xff';
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::vector<Word> words = {{"word", "s"}};
    Input input(data, size, words);
    bool travels = true;
    Entry entry = {static_cast<uint16_t>(input.Below(65536)),
                   static_cast<uint16_t>(input.Below(65536)),
                   static_cast<uint16_t>(input.Below(65536)),
                   MaybeWrong(input, travels),
                   MaybeWrong(input, travels),
                   MaybeWrong(input, travels),
                   {}};
    for (size_t count = input.Below(6); count > 0; --count)
    {
        std::string any = input.Text();
        any += static_cast<char>(input.Below(256));
        entry.arguments.push_back(any);
    }

    // Nobody answers in time, but the request is out by then.
    sd_bus* connection = TheWire().Default();
    sd_bus_set_method_call_timeout(connection, 1);
    bmcbus::Bus bus(connection);
    const size_t before = test::ErrorLines();
    QZLogViaDbus::Log(bus, entry.agent, entry.category, entry.severity, entry.id, entry.message,
                      entry.fqdd, entry.arguments);
    Expect(test::ErrorLines() == before + 1, "one line says that there is no answer");

    size_t calls = 0;
    TheWire().Serve(
        [&](sd_bus_message* call)
        {
            ++calls;
            const std::vector<kit::Value> got = kit::Value::ReadAll(call);
            if (!(got == Request(entry)))
            {
                Fail("sent " + kit::TextOf(got) + " instead of " + kit::TextOf(Request(entry)));
            }
        });
    Expect(calls == (travels ? 1 : 0), "sent once, or not at all");
    return 0;
}
