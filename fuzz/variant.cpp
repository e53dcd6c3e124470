// Values of any type from messages, whole and damaged: what is read compares, prints, converts and
// travels back as it came.

#include "check.hpp"
#include "wire.hpp"

#include <bmcbus/refs.hpp>
#include <bmcbus/variant.hpp>

#include <stdexcept>

namespace
{

using namespace fuzz;
using bmcbus::Variant;
using bmcbus::client::Wire;

constexpr const char* interface = "com.example.Fuzz";

const std::vector<Word> words = {{"one", "s"}, {"two", "a{sv}"}, {"three", "av"}};

Variant Returned(const Variant& value)
{
    sd_bus_message* raw = nullptr;
    Expect(sd_bus_message_new_signal(TheWire().Default(), &raw, "/", interface, "Back") >= 0,
           "sd_bus_message_new_signal");
    const std::unique_ptr<sd_bus_message, bmcbus::Unref> message(raw);
    Wire<Variant>::Append(raw, value);
    Expect(sd_bus_message_seal(raw, 1, 0) >= 0 && sd_bus_message_rewind(raw, 1) >= 0, "sealed");
    Variant back;
    Expect(Wire<Variant>::Read(raw, back), "what was written is read");
    return back;
}

// A conversion that works loses nothing, so it leads back, unless a `v` has hidden the type.
void Convert(const Variant& value, const std::string& type)
{
    try
    {
        const Variant other = value.As(type);
        const bool hides =
            type.find('v') != std::string::npos || value.Signature().find('v') != std::string::npos;
        Expect(other.Signature() == type || type == "v", "the type is the one asked for");
        Expect(hides || other.As(value.Signature()) == value, "conversion leads back");
    }
    catch (const std::invalid_argument&)
    {
    }
}

struct Seen
{
    Input& input;
    Variant last;
};

void Look(Seen& seen, const Variant& value)
{
    Expect(value == value && !(value < value), "a value equals itself");
    Expect((value < seen.last) + (seen.last < value) + (value == seen.last) == 1,
           "any two values compare");
    Expect(Returned(value) == value, "a value travels");
    Expect(!value.Text().empty(), "a value has a text");
    Expect(value.As(value.Signature()) == value, "a value is of its own type");
    Convert(value, seen.input.Type());
    seen.last = value;
}

int Filter(sd_bus_message* message, void* user_data, sd_bus_error* /*error*/)
{
    if (sd_bus_message_is_signal(message, interface, nullptr) > 0)
    {
        try
        {
            for (Variant value; Wire<Variant>::Read(message, value);)
            {
                Look(*static_cast<Seen*>(user_data), value);
            }
        }
        catch (const bmcbus::Error&)
        {
            // Damaged, or not a variant.
        }
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size, words);
    Seen seen{input, {}};
    while (input.Left())
    {
        sd_bus_slot* raw = nullptr;
        Expect(sd_bus_add_filter(TheWire().Default(), &raw, Filter, &seen) >= 0, "add filter");
        const bmcbus::Slot filter(raw);
        const std::vector<kit::Value> body = {kit::Value::Variant(input.Of(input.Type()))};
        if (input.OnceIn(3))
        {
            TheWire().Damaged(input, "/", interface, "Member", body);
        }
        else
        {
            TheWire().Signal("/", interface, "Member", body);
        }
    }
    return 0;
}
