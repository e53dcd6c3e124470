// A value is its signature and its content, containers holding values again, so that a test can
// build what no C++ type of the library would.

#include <bmcbus/testing/text.hpp>
#include <bmcbus/testing/value.hpp>

#include <cstdio>

namespace bmcbus::testing
{
namespace
{

constexpr size_t deepest = 64;

// Length of the complete type at the start of `signature`, 0 when there is none.
size_t TypeLength(std::string_view signature, size_t depth = 0)
{
    if (signature.empty() || depth > deepest)
    {
        return 0;
    }
    constexpr std::string_view basics = "bynqiuxtdsogh";
    const char first = signature.front();
    if (basics.find(first) != std::string_view::npos || first == 'v')
    {
        return 1;
    }
    if (first == 'a' && signature.size() > 1 && signature[1] == '{')
    {
        // A dictionary entry: one basic key and one value, only ever inside an array.
        const std::string_view inner = signature.substr(2);
        if (inner.empty() || basics.find(inner.front()) == std::string_view::npos)
        {
            return 0;
        }
        const size_t value = TypeLength(inner.substr(1), depth + 1);
        const bool closed = value > 0 && inner.size() > value + 1 && inner[value + 1] == '}';
        return closed ? value + 4 : 0;
    }
    if (first == 'a')
    {
        const size_t element = TypeLength(signature.substr(1), depth + 1);
        return element > 0 ? element + 1 : 0;
    }
    if (first == '(')
    {
        size_t at = 1;
        while (at < signature.size() && signature[at] != ')')
        {
            const size_t field = TypeLength(signature.substr(at), depth + 1);
            if (field == 0)
            {
                return 0;
            }
            at += field;
        }
        return at > 1 && at < signature.size() ? at + 1 : 0;
    }
    return 0;
}

std::string_view Inner(std::string_view type)
{
    return type.substr(1, type.size() - 2);
}

std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text)
    {
        switch (c)
        {
            case '"':
            case '\\':
                quoted += '\\';
                quoted += c;
                break;
            case '\n':
                quoted += "\\n";
                break;
            case '\t':
                quoted += "\\t";
                break;
            default:
                quoted += c;
        }
    }
    return Printable(quoted) + "\"";
}

} // namespace

std::vector<std::string> SplitSignature(std::string_view signature)
{
    std::vector<std::string> types;
    std::string_view left = signature;
    while (!left.empty())
    {
        const size_t length = TypeLength(left);
        if (length == 0)
        {
            throw std::invalid_argument("no D-Bus signature: \"" + std::string(signature) + "\"");
        }
        types.emplace_back(left.substr(0, length));
        left.remove_prefix(length);
    }
    return types;
}

Value::Value(std::string type, Content value) :
    signature(std::move(type)), content(std::move(value))
{
}

Value::Value(const char* text) : signature("s"), content(std::string(text)) {}

Value Value::Default(std::string_view signature)
{
    if (TypeLength(signature) != signature.size() || signature.empty())
    {
        throw std::invalid_argument("no complete D-Bus type: \"" + std::string(signature) + "\"");
    }
    const std::string type(signature);
    switch (signature.front())
    {
        case 'b':
            return {type, false};
        case 'y':
            return {type, uint8_t{0}};
        case 'n':
            return {type, int16_t{0}};
        case 'q':
            return {type, uint16_t{0}};
        case 'i':
            return {type, int32_t{0}};
        case 'u':
            return {type, uint32_t{0}};
        case 'x':
            return {type, int64_t{0}};
        case 't':
            return {type, uint64_t{0}};
        case 'd':
            return {type, 0.0};
        case 'o':
            return {type, std::string("/")};
        case 'h':
            return {type, int32_t{-1}};
        case 'v':
            return Variant("");
        case 'a':
            return {type, std::vector<Value>()};
        case '(':
        {
            std::vector<Value> fields;
            for (const std::string& field : SplitSignature(Inner(signature)))
            {
                fields.push_back(Default(field));
            }
            return {type, std::move(fields)};
        }
        default:
            return {type, std::string()};
    }
}

Value Value::Variant(Value content)
{
    return {"v", std::vector<Value>{std::move(content)}};
}

Value Value::Struct(std::vector<Value> fields)
{
    if (fields.empty())
    {
        throw std::invalid_argument("a struct without fields");
    }
    std::string type = "(" + SignatureOf(fields) + ")";
    return {std::move(type), std::move(fields)};
}

Value Value::Array(std::string_view element, std::vector<Value> elements)
{
    Value array = Default("a" + std::string(element));
    for (const Value& item : elements)
    {
        if (item.signature != element)
        {
            throw std::invalid_argument("an array of " + std::string(element) + " cannot hold " +
                                        item.Text());
        }
    }
    array.content = std::move(elements);
    return array;
}

Value Value::Dictionary(std::string_view key, std::string_view value,
                        std::vector<std::pair<Value, Value>> entries)
{
    const std::string entryType = "{" + std::string(key) + std::string(value) + "}";
    Value dictionary = Default("a" + entryType);
    std::vector<Value> content;
    for (std::pair<Value, Value>& entry : entries)
    {
        const auto& [k, v] = entry;
        if (k.signature != key || v.signature != value)
        {
            throw std::invalid_argument("a dictionary of " + entryType + " cannot hold " +
                                        k.Text() + " " + v.Text());
        }
        content.push_back(
            Value(entryType, std::vector<Value>{std::move(entry.first), std::move(entry.second)}));
    }
    dictionary.content = std::move(content);
    return dictionary;
}

Value Value::Descriptor(int fd)
{
    return {"h", static_cast<int32_t>(fd)};
}

const std::vector<Value>& Value::Children() const
{
    static const std::vector<Value> none;
    const auto* children = std::get_if<std::vector<Value>>(&content);
    return children == nullptr ? none : *children;
}

bool Value::operator==(const Value& other) const
{
    return signature == other.signature && content == other.content;
}

// --- text ---------------------------------------------------------------------------------------

namespace
{

struct BodyText
{
    std::string operator()(bool value) const { return value ? "true" : "false"; }
    std::string operator()(double value) const
    {
        char text[32];
        std::snprintf(text, sizeof(text), "%g", value);
        return text;
    }
    std::string operator()(const std::string& value) const { return Quoted(value); }
    std::string operator()(const std::vector<Value>&) const { return {}; }
    template <WireInteger T>
    std::string operator()(T value) const
    {
        return std::to_string(value);
    }
};

} // namespace

std::string Value::Body() const
{
    if (!std::holds_alternative<std::vector<Value>>(content))
    {
        return std::visit(BodyText(), content);
    }
    if (signature == "v")
    {
        return Children().front().Text();
    }
    std::string body = signature.front() == 'a' ? std::to_string(Children().size()) : std::string();
    for (const Value& child : Children())
    {
        body += body.empty() ? "" : " ";
        body += child.Body();
    }
    return body;
}

std::string Value::Text() const
{
    return signature + " " + Body();
}

std::string Bracketed(const char* before, std::initializer_list<std::string> types,
                      const char* after)
{
    std::string text(before);
    for (const std::string& type : types)
    {
        text += type;
    }
    return text += after;
}

std::string SignatureOf(const std::vector<Value>& values)
{
    std::string signature;
    for (const Value& value : values)
    {
        signature += value.Signature();
    }
    return signature;
}

std::string TextOf(const std::vector<Value>& values)
{
    std::string text = SignatureOf(values);
    for (const Value& value : values)
    {
        text += ' ';
        text += value.Body();
    }
    return text;
}

Value AsPropertyMap(const NamedValues& values)
{
    std::vector<std::pair<Value, Value>> entries;
    for (const auto& [name, value] : values)
    {
        entries.emplace_back(name, Value::Variant(value));
    }
    return Value::Dictionary("s", "v", std::move(entries));
}

} // namespace bmcbus::testing
