#pragma once

// Values whose type is known at run time only.

#include <bmcbus/client/type.hpp>

namespace bmcbus::client
{

// An owned value of any type; small ones lie inside. Movable.
class Value
{
  public:
    Value() = default;
    Value(Value&& other) noexcept;
    Value& operator=(Value&& other) noexcept;
    ~Value();

    // Drops what it held and holds a value-initialised `type`.
    void* Emplace(const Type& type);

    const Type* type() const { return type_; }
    void* get() { return heap_ != nullptr ? heap_ : inside_; }

  private:
    void Take(Value& other) noexcept;
    void Drop() noexcept;

    const Type* type_ = nullptr;
    void* heap_ = nullptr;
    alignas(std::max_align_t) std::byte inside_[48];
};

// Reads one variant that probably holds alternative `expected`. A value of no alternative's type is
// skipped and reads as alternative 0, value-initialised. Throws Error. Gives the index of the
// alternative.
size_t ReadVariant(sd_bus_message* message, Alternatives alternatives, size_t expected,
                   Value& value);

} // namespace bmcbus::client
