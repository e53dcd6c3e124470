// Checks signatures by recursion, which the limits of D-Bus on nesting keep shallow.

#include "bus/signature.hpp"

#include "bus/bus.hpp"

#include <bmcbus/signature.hpp>

#include <cerrno>
#include <stdexcept>

namespace bmcbus
{
namespace
{

constexpr size_t longest = 255;
constexpr unsigned deepest = 32;

bool IsBasic(char code)
{
    return code != '\0' && std::string_view("ybnqiuxtdsogh").find(code) != std::string_view::npos;
}

class Walk
{
  public:
    explicit Walk(std::string_view text) : text_(text) {}

    // Moves behind the complete type that comes next.
    bool Complete(unsigned arrays, unsigned structs)
    {
        const char code = Next();
        if (code == 'a')
        {
            return arrays < deepest && Element(arrays + 1, structs);
        }
        if (code == '(')
        {
            return structs < deepest && Fields(arrays, structs + 1);
        }
        return code == 'v' || IsBasic(code);
    }

    size_t at() const { return at_; }

  private:
    char Peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
    char Next()
    {
        const char code = Peek();
        ++at_;
        return code;
    }

    bool Element(unsigned arrays, unsigned structs)
    {
        if (Peek() != '{')
        {
            return Complete(arrays, structs);
        }
        ++at_;
        return structs < deepest && IsBasic(Next()) && Complete(arrays, structs + 1) &&
               Next() == '}';
    }

    bool Fields(unsigned arrays, unsigned structs)
    {
        do
        {
            if (!Complete(arrays, structs))
            {
                return false;
            }
        } while (Peek() != ')');
        ++at_;
        return true;
    }

    std::string_view text_;
    size_t at_ = 0;
};

} // namespace

size_t CompleteType(std::string_view signature) noexcept
{
    Walk walk(signature);
    return walk.Complete(0, 0) ? walk.at() : 0;
}

bool IsCompleteType(std::string_view text) noexcept
{
    return !text.empty() && text.size() <= longest && CompleteType(text) == text.size();
}

Signature::Signature(std::string text) : text_(std::move(text))
{
    if (!Valid(text_))
    {
        throw std::invalid_argument("no D-Bus signature: \"" + text_ + "\"");
    }
}

bool Signature::Valid(std::string_view text) noexcept
{
    if (text.size() > longest)
    {
        return false;
    }
    while (!text.empty())
    {
        const size_t length = CompleteType(text);
        if (length == 0)
        {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

namespace client
{

bool Wire<Signature>::Read(sd_bus_message* message, Signature& value)
{
    const char* text = nullptr;
    const bool found = ReadText(message, SD_BUS_TYPE_SIGNATURE, text);
    if (found)
    {
        if (!Signature::Valid(text))
        {
            throw Error(EBADMSG, "sd_bus_message_read_basic string");
        }
        value = Signature(text);
    }
    return found;
}

void Wire<Signature>::Append(sd_bus_message* message, const Signature& value)
{
    AppendBasic(message, SD_BUS_TYPE_SIGNATURE, value.str().c_str());
}

} // namespace client
} // namespace bmcbus
