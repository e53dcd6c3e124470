// Values into and out of messages.

#include <bmcbus/testing/text.hpp>
#include <bmcbus/testing/value.hpp>

#include "check.hpp"

namespace bmcbus::testing
{

void Value::AppendBasic(sd_bus_message* message) const
{
    const char type = signature.front();
    const int result = std::visit(
        [&]<class T>(const T& value)
        {
            if constexpr (std::same_as<T, std::string>)
            {
                return MayTravel(value) ? sd_bus_message_append_basic(message, type, value.c_str())
                                        : -EILSEQ;
            }
            else if constexpr (std::same_as<T, bool>)
            {
                const int number = value ? 1 : 0;
                return sd_bus_message_append_basic(message, type, &number);
            }
            else
            {
                return sd_bus_message_append_basic(message, type, &value);
            }
        },
        content);
    if (result < 0)
    {
        Check(result, "append " + Text());
    }
}

void Value::AppendContainer(sd_bus_message* message) const
{
    const char first = signature.front();
    const char type = first == '(' ? 'r' : first == '{' ? 'e' : first;
    std::string inner;
    switch (first)
    {
        case 'v':
            inner = Children().front().signature;
            break;
        case 'a':
            inner = signature.substr(1);
            break;
        default:
            inner = signature.substr(1, signature.size() - 2);
    }
    Check(sd_bus_message_open_container(message, type, inner.c_str()), "open " + signature);
    for (const Value& child : Children())
    {
        child.Append(message);
    }
    Check(sd_bus_message_close_container(message), "close " + signature);
}

void Value::Append(sd_bus_message* message) const
{
    if (std::holds_alternative<std::vector<Value>>(content))
    {
        AppendContainer(message);
    }
    else
    {
        AppendBasic(message);
    }
}

void Value::RequireTravels() const
{
    if (const auto* children = std::get_if<std::vector<Value>>(&content))
    {
        for (const Value& child : *children)
        {
            child.RequireTravels();
        }
        return;
    }
    const auto* text = std::get_if<std::string>(&content);
    if (text == nullptr)
    {
        return;
    }
    if (!MayTravel(*text) || (signature == "o" && sd_bus_object_path_is_valid(text->c_str()) <= 0))
    {
        throw std::invalid_argument("no message can carry " + Text());
    }
    if (signature == "g")
    {
        SplitSignature(*text); // throws
    }
}

// Reads one value of the type that the message announces.
class ValueReader
{
  public:
    explicit ValueReader(sd_bus_message* from) : message(from) {}

    Value Read()
    {
        char type = 0;
        const char* inner = nullptr;
        Check(sd_bus_message_peek_type(message, &type, &inner), "read a value");
        switch (type)
        {
            case 0:
                throw std::system_error(ENXIO, std::generic_category(), "read a value");
            case 'a':
                return Container('a', inner, "a" + std::string(inner));
            case 'r':
                return Container('r', inner, "(" + std::string(inner) + ")");
            case 'e':
                return Container('e', inner, "{" + std::string(inner) + "}");
            case 'v':
                return Container('v', inner, "v");
            default:
                return Basic(type);
        }
    }

    std::vector<Value> ReadAll()
    {
        std::vector<Value> values;
        while (Check(sd_bus_message_at_end(message, 0), "read values") == 0)
        {
            values.push_back(Read());
        }
        return values;
    }

  private:
    Value Container(char type, const char* inner, std::string signature)
    {
        // The message owns `inner` and frees it when the container is left.
        const std::string contents(inner);
        Check(sd_bus_message_enter_container(message, type, contents.c_str()), "enter container");
        std::vector<Value> values = ReadAll();
        Check(sd_bus_message_exit_container(message), "leave container");
        return {std::move(signature), std::move(values)};
    }

    Value Basic(char type)
    {
        Value value = Value::Default(std::string(1, type));
        std::visit(
            [&]<class T>(T& content)
            {
                if constexpr (std::same_as<T, std::string>)
                {
                    const char* text = nullptr;
                    Check(sd_bus_message_read_basic(message, type, &text), "read text");
                    content = text;
                }
                else if constexpr (std::same_as<T, bool>)
                {
                    int number = 0;
                    Check(sd_bus_message_read_basic(message, type, &number), "read bool");
                    content = number != 0;
                }
                else if constexpr (std::is_arithmetic_v<T>)
                {
                    Check(sd_bus_message_read_basic(message, type, &content), "read number");
                }
            },
            value.content);
        return value;
    }

    sd_bus_message* message;
};

Value Value::Read(sd_bus_message* message)
{
    return ValueReader(message).Read();
}

std::vector<Value> Value::ReadAll(sd_bus_message* message)
{
    return ValueReader(message).ReadAll();
}

} // namespace bmcbus::testing
