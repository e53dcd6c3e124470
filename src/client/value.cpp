// Holds a value of any type, in itself where it fits, and reads one from a variant.

#include "client/value.hpp"

#include <new>
#include <stdexcept>

namespace bmcbus::client
{

void* Value::Emplace(const Type& type)
{
    Drop();
    if (type.size > sizeof(inside_))
    {
        heap_ = ::operator new(type.size);
    }
    type.construct(get());
    type_ = &type;
    return get();
}

Value::Value(Value&& other) noexcept
{
    Take(other);
}

Value& Value::operator=(Value&& other) noexcept
{
    if (this != &other)
    {
        Drop();
        Take(other);
    }
    return *this;
}

Value::~Value()
{
    Drop();
}

void Value::Take(Value& other) noexcept
{
    if (other.heap_ != nullptr)
    {
        heap_ = std::exchange(other.heap_, nullptr);
        type_ = std::exchange(other.type_, nullptr);
    }
    else if (other.type_ != nullptr)
    {
        other.type_->construct(inside_);
        type_ = other.type_;
        type_->move(inside_, other.inside_);
    }
}

void Value::Drop() noexcept
{
    if (type_ != nullptr)
    {
        type_->destroy(get());
    }
    if (heap_ != nullptr)
    {
        ::operator delete(std::exchange(heap_, nullptr));
    }
    type_ = nullptr;
}

size_t ReadVariant(sd_bus_message* message, Alternatives alternatives, size_t expected,
                   Value& value)
{
    // Entering compares the signatures and leaves the message alone where they differ.
    const Type& likely = *alternatives[expected];
    if (sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, likely.signature) > 0)
    {
        likely.read(message, value.Emplace(likely));
        Exit(message, step::exitVariant);
        return expected;
    }
    const char* contents = PeekVariant(message);
    for (size_t i = 0; contents != nullptr && i < alternatives.size(); ++i)
    {
        const Type& type = *alternatives[i];
        if (std::strcmp(contents, type.signature) == 0)
        {
            Enter(message, SD_BUS_TYPE_VARIANT, type.signature, step::enterVariant);
            type.read(message, value.Emplace(type));
            Exit(message, step::exitVariant);
            return i;
        }
    }
    if (contents != nullptr)
    {
        SkipVariant(message);
    }
    value.Emplace(*alternatives[0]);
    return 0;
}

} // namespace bmcbus::client
