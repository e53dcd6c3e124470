// The reply to GetAll: as an object's own first read, and through the public function.

#include "copy.hpp"
#include "wire.hpp"

#include <async_ops.hpp>

namespace
{

using namespace fuzz;

// A reply that is an error, or has these arguments.
struct Reply
{
    bool error;
    std::vector<kit::Value> arguments;
};

Reply AnyReply(Input& input)
{
    return {input.OnceIn(8), input.Bent({input.PropertyMap()})};
}

void Send(sd_bus_message* call, const Reply& reply)
{
    sd_bus_message* message = nullptr;
    const sd_bus_error error = {"com.example.Error.Some", "text", 0};
    Expect((reply.error ? sd_bus_message_new_method_error(call, &message, &error)
                        : sd_bus_message_new_method_return(call, &message)) >= 0,
           "new reply");
    // What follows an error's text is for nobody.
    for (const kit::Value& value : reply.arguments)
    {
        value.Append(message);
    }
    Expect(sd_bus_send(sd_bus_message_get_bus(call), message, nullptr) >= 0, "sd_bus_send");
    sd_bus_message_unref(message);
}

// True when the reply can be read.
bool Apply(Copy& copy, const Reply& reply)
{
    if (reply.error)
    {
        copy.errors += 2; // its name and its text
        return false;
    }
    if (reply.arguments.empty() || reply.arguments[0].Signature() != "a{sv}")
    {
        ++copy.errors;
        return false;
    }
    if (!reply.arguments[0].Children().empty())
    {
        copy.Store(reply.arguments[0]);
        copy.ready = true;
    }
    return true;
}

// Answers what has been asked; gives the number of calls.
size_t Answer(const Reply& reply)
{
    size_t calls = 0;
    TheWire().Serve(
        [&](sd_bus_message* call)
        {
            ++calls;
            Send(call, reply);
        });
    return calls;
}

template <class Class>
void AskPublicly(Tested<Class>& tested, const Reply& reply)
{
    using Variant = typename Class::Variant;
    bmcbus::Bus bus(TheWire().Default());
    size_t completions = 0;
    bool success = false;
    Async::Ops::GetAllProperties<Variant>(
        bus, "com.example.Service", tested.path, About<Class>::interface,
        [&](bool read, std::map<std::string, Variant>& values, void* object)
        {
            ++completions;
            success = read;
            Expect(read || values.empty(), "a failure has no values");
            Class::GetPropertiesAsyncCallback(read, values, object);
        },
        &tested.object);
    Expect(Answer(reply) == 1, "one call is sent");
    Expect(Apply(tested.expected, reply) == success, "success is told");
    Expect(completions == 1, "one completion");
}

template <class Class>
void Round(Input& input)
{
    Tested<Class> tested("com.example.Service");
    if (input.OnceIn(8))
    {
        // The object goes before its answer comes.
        Tested<Class> gone("com.example.Service");
    }
    while (input.Left())
    {
        const Reply own = AnyReply(input);
        Expect(Answer(own) >= 1, "the object asks");
        Apply(tested.expected, own);
        tested.Compare();
        if (input.OnceIn(2))
        {
            AskPublicly(tested, AnyReply(input));
            tested.Compare();
        }
        tested.object.InitialGetAll();
    }
    const Member<Class>& member = About<Class>::members.front();
    const Reply last = {false, {kit::AsPropertyMap({{member.name, member.initial}})}};
    Expect(Answer(last) >= 1, "the object asks");
    Apply(tested.expected, last);
    tested.Compare();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 0 && data[0] % 2 == 0)
    {
        Input input(data + 1, size - 1, Words<Fans>());
        Round<Fans>(input);
    }
    else if (size > 0)
    {
        Input input(data + 1, size - 1, Words<Power>());
        Round<Power>(input);
    }
    return 0;
}
