#pragma once

// What a cached proxy should hold, worked out from the messages that were sent.

#include "check.hpp"
#include "classes.hpp"
#include "counting_sink.hpp"

#include <map>

namespace fuzz
{

struct Stored
{
    kit::Value value;
    bool is_set = false;
};

// The state of any class; names are those of its properties.
struct Copy
{
    std::string interface;
    kit::Value first; // the property-value variant's alternative 0, empty
    std::map<std::string, Stored> values;
    bool ready = false;
    uint32_t signals = 0;
    size_t calls = 0;  // of the change callback
    size_t errors = 0; // lines in the log

    // Stores an a{sv}; of equal names the first counts. A value of a type that no property has
    // reads as alternative 0.
    void Store(const kit::Value& map);

    // A signal was handled, or refused.
    void Count(bool handled)
    {
        signals += handled ? 1 : 0;
        calls += handled ? 1 : 0;
        errors += handled ? 0 : 1;
    }

  private:
    const kit::Value& AsRead(const kit::Value& value) const;
};

// A cached proxy together with what it should hold.
template <class Class>
class Tested
{
  public:
    static constexpr const char* path = "/com/example/object";

    // The object has asked for its service, or for its values when it has a service.
    explicit Tested(const std::string& service) : object(path, service, OnChange, this, true)
    {
        for (const Member<Class>& member : About<Class>::members)
        {
            expected.values.emplace(member.name, Stored{member.initial});
        }
    }

    // The promises about what can be seen from outside.
    void Compare()
    {
        Expect(object.Ready() == expected.ready, "readiness");
        Expect(object.SignalCount() == expected.signals, "signals are counted");
        Expect(calls == expected.calls, "callbacks run once for every signal");
        Expect(test::ErrorLines() - errorsBefore == expected.errors, "errors are logged");
        for (const Member<Class>& member : About<Class>::members)
        {
            const Stored& wanted = expected.values.at(member.name);
            bool is_set = false;
            const kit::Value value = member.get(object, is_set);
            if (is_set != wanted.is_set || !Same(value, wanted.value))
            {
                Fail(member.name + " is " + value.Text() + " instead of " + wanted.value.Text());
            }
        }
    }

    // After a message that was damaged: whatever the object holds now is what it holds.
    void Adopt()
    {
        const uint32_t more = object.SignalCount() - expected.signals;
        Expect(more <= 1, "a signal is handled at most once");
        expected.signals += more;
        expected.calls += more;
        expected.ready = object.Ready();
        expected.errors = test::ErrorLines() - errorsBefore;
        for (const Member<Class>& member : About<Class>::members)
        {
            Stored& stored = expected.values.at(member.name);
            stored.value = member.get(object, stored.is_set);
        }
    }

    Class object;
    Copy expected{.interface = About<Class>::interface,
                  .first = std::variant_alternative_t<0, typename Class::Variant>{}};

  private:
    static void OnChange(Class* /*object*/, void* self) { ++static_cast<Tested*>(self)->calls; }

    size_t calls = 0;
    size_t errorsBefore = test::ErrorLines();
};

} // namespace fuzz
