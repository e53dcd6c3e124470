// The text of a value, in the words of busctl.

#include "bus/signature.hpp"
#include "bus/variant_inside.hpp"

#include <cstdio>

namespace bmcbus
{
namespace
{

void AddEscaped(std::string& text, unsigned char c)
{
    constexpr std::string_view named = "\a\b\f\n\r\t\v\\\"'";
    constexpr std::string_view names = "abfnrtv\\\"'";
    const size_t at = named.find(static_cast<char>(c));
    if (at != std::string_view::npos)
    {
        text += '\\';
        text += names[at];
    }
    else if (c < ' ' || c >= 127)
    {
        char octal[5];
        std::snprintf(octal, sizeof(octal), "\\%03o", c);
        text += octal;
    }
    else
    {
        text += static_cast<char>(c);
    }
}

// Adds the value at a place of a type: with its own type where that is `v`.
class Printer
{
  public:
    explicit Printer(std::string& text) : text_(text) {}

    void Place(std::string_view type, const Variant& value)
    {
        Space();
        if (type == "v")
        {
            text_ += value.Signature();
            Space();
        }
        value.Visit(*this);
    }

    void operator()(std::monostate) {}
    void operator()(bool value) { text_ += value ? "true" : "false"; }
    void operator()(double value)
    {
        char number[32];
        std::snprintf(number, sizeof(number), "%g", value);
        text_ += number;
    }
    template <std::integral T>
    void operator()(T value)
    {
        text_ += std::to_string(value);
    }
    void operator()(const std::string& value)
    {
        text_ += '"';
        for (const char c : value)
        {
            AddEscaped(text_, static_cast<unsigned char>(c));
        }
        text_ += '"';
    }
    void operator()(const ObjectPath& value) { (*this)(value.str); }
    void operator()(const Signature& value) { (*this)(value.str()); }
    void operator()(const UnixFd& value) { (*this)(value.get()); }
    template <class T>
    void operator()(std::span<const T> numbers)
    {
        text_ += std::to_string(numbers.size());
        for (const T number : numbers)
        {
            Space();
            (*this)(number);
        }
    }
    void operator()(const Variant::Array& array)
    {
        text_ += std::to_string(array.size());
        for (const Variant& item : array)
        {
            Place(array.signature, item);
        }
    }
    void operator()(const Variant::Dictionary& dictionary)
    {
        text_ += std::to_string(dictionary.size());
        for (size_t i = 0; i < dictionary.size(); ++i)
        {
            Place(dictionary.signature.substr(0, 1), dictionary.Key(i));
            Place(dictionary.signature.substr(1), dictionary.Value(i));
        }
    }
    void operator()(const Variant::Struct& fields)
    {
        std::string_view types = fields.signature;
        for (const Variant& field : fields)
        {
            const size_t length = CompleteType(types);
            Place(types.substr(0, length), field);
            types.remove_prefix(length);
        }
    }
    void operator()(const Variant& content) { Place("v", content); }

  private:
    void Space()
    {
        if (!text_.empty() && text_.back() != ' ')
        {
            text_ += ' ';
        }
    }

    std::string& text_;
};

} // namespace

std::string Variant::Text() const
{
    std::string text;
    if (HasValue())
    {
        Printer(text).Place("v", *this);
    }
    return text;
}

} // namespace bmcbus
