// The reply to GetAll: as an object's own first read, and through the public function.

#include "copy.hpp"
#include "wire.hpp"

#include <async_ops.hpp>

namespace
{

using namespace fuzz;

// A reply that is an error, or has these arguments.
struct Answer
{
    bool error;
    std::vector<kit::Value> arguments;
};

Answer AnyAnswer(Input& input)
{
    return {input.OnceIn(8), input.Bent({input.PropertyMap()})};
}

// True when the reply can be read.
bool Apply(Copy& copy, const Answer& reply)
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
size_t Send(const Answer& reply)
{
    size_t calls = 0;
    TheWire().Serve(
        [&](sd_bus_message* call)
        {
            ++calls;
            Reply(call, reply.arguments, reply.error);
        });
    return calls;
}

template <class Class>
void AskPublicly(Tested<Class>& tested, const Answer& reply)
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
    Expect(Send(reply) == 1, "one call is sent");
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
        const Answer own = AnyAnswer(input);
        Expect(Send(own) >= 1, "the object asks");
        Apply(tested.expected, own);
        tested.Compare();
        if (input.OnceIn(2))
        {
            AskPublicly(tested, AnyAnswer(input));
            tested.Compare();
        }
        tested.object.InitialGetAll();
    }
    const Member<Class>& member = About<Class>::members.front();
    const Answer last = {false, {kit::AsPropertyMap({{member.name, member.initial}})}};
    Expect(Send(last) >= 1, "the object asks");
    Apply(tested.expected, last);
    tested.Compare();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return ForOneOf(data, size,
                    [](Input& input, auto class_)
                    { Round<typename decltype(class_)::type>(input); });
}
