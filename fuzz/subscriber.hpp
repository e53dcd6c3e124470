#pragma once

// The signal of a subscriber, in any shape.

#include "check.hpp"
#include "classes.hpp"
#include "counting_sink.hpp"
#include "wire.hpp"

namespace fuzz
{

template <class Class>
class Subscription
{
  public:
    explicit Subscription(Input& bytes) : input(bytes) {}

    void Run()
    {
        while (input.Left())
        {
            if (input.OnceIn(4))
            {
                TheWire().Damaged(input, path, About<Class>::interface, About<Class>::signal,
                                  input.Bent(Right()));
                Adopt();
                Send(Right());
            }
            else
            {
                Send(input.Bent(Right()));
            }
        }
        Send(Right());
    }

  private:
    static constexpr const char* path = "/com/example/object";

    // Arguments as the signal has them.
    std::vector<kit::Value> Right()
    {
        std::vector<kit::Value> arguments;
        for (const Member<Class>& member : About<Class>::members)
        {
            arguments.push_back(input.Left() ? input.Of(member.initial.Signature())
                                             : member.initial);
        }
        return arguments;
    }

    void Send(const std::vector<kit::Value>& arguments)
    {
        TheWire().Signal(path, About<Class>::interface, About<Class>::signal, arguments);
        // What comes before the first argument of another type is stored, the rest is cleared.
        size_t good = 0;
        for (; good < values.size(); ++good)
        {
            const kit::Value& initial = About<Class>::members[good].initial;
            if (good >= arguments.size() || arguments[good].Signature() != initial.Signature())
            {
                break;
            }
            values[good] = AsKept(arguments[good]);
        }
        for (size_t i = good; i < values.size(); ++i)
        {
            values[i] = About<Class>::members[i].initial;
        }
        signals += good == values.size() ? 1 : 0;
        errors += good == values.size() ? 0 : 1;
        Compare();
    }

    void Compare()
    {
        Expect(object.SignalCount() == signals, "complete signals are counted");
        Expect(calls == signals, "callbacks run once for every complete signal");
        Expect(object.Ready() == (signals > 0), "readiness");
        Expect(test::ErrorLines() - errorsBefore == errors, "errors are logged");
        for (size_t i = 0; i < values.size(); ++i)
        {
            const Member<Class>& member = About<Class>::members[i];
            bool is_set = false;
            const kit::Value value = member.get(object, is_set);
            if (is_set != (signals > 0) || !Same(value, values[i]))
            {
                Fail(member.name + " is " + value.Text() + " instead of " + values[i].Text());
            }
        }
    }

    // After a signal that was damaged: whatever the object holds now is what it holds.
    void Adopt()
    {
        const uint32_t before = signals;
        signals = object.SignalCount();
        Expect(signals - before <= 1, "a signal is handled at most once");
        errors = test::ErrorLines() - errorsBefore;
        for (size_t i = 0; i < values.size(); ++i)
        {
            bool is_set = false;
            values[i] = About<Class>::members[i].get(object, is_set);
        }
        Compare();
    }

    static std::vector<kit::Value> Initial()
    {
        std::vector<kit::Value> initial;
        for (const Member<Class>& member : About<Class>::members)
        {
            initial.push_back(member.initial);
        }
        return initial;
    }

    static void OnSignal(Class* /*object*/, void* calls) { ++*static_cast<size_t*>(calls); }

    Input& input;
    size_t calls = 0;
    size_t errorsBefore = test::ErrorLines();
    size_t errors = 0;
    uint32_t signals = 0;
    std::vector<kit::Value> values = Initial();
    Class object{path, OnSignal, &calls};
};

template <class Class>
int Run(const uint8_t* data, size_t size)
{
    Input input(data, size, Words<Class>());
    Subscription<Class>(input).Run();
    return 0;
}

} // namespace fuzz
