// Makes messages out of the fuzzer's bytes: mostly such as a service may send, sometimes odd ones.

#include "input.hpp"

#include <array>
#include <cmath>

namespace fuzz
{
namespace
{

constexpr size_t deepest = 5;

constexpr std::array pieces = {"a",  "Z",  "0", "_",  ".",    "/",      " ",          "%s",
                               "%n", "\n", "'", "\"", "\x01", "\u00e9", "\U0001F600", "\u20ac"};

} // namespace

Input::Input(const uint8_t* data, size_t size, const std::vector<Word>& known) :
    bytes(data, size), words(known)
{
}

size_t Input::Below(size_t limit)
{
    return bytes.ConsumeIntegralInRange<size_t>(0, limit - 1);
}

bool Input::OnceIn(size_t times)
{
    return Below(times) == 1;
}

std::string Input::Text()
{
    std::string text;
    for (size_t length = Below(8); length > 0; --length)
    {
        text += pieces[Below(pieces.size())];
    }
    if (OnceIn(32))
    {
        text.append(1000, 'x');
    }
    return text;
}

std::string Input::Name()
{
    const size_t kind = Below(8);
    if (kind == 7)
    {
        return Text();
    }
    std::string name = words[Below(words.size())].name;
    if (kind == 5)
    {
        name += Text();
    }
    else if (kind == 6)
    {
        name.resize(Below(name.size()));
    }
    return name;
}

std::string Input::Type(size_t depth)
{
    constexpr std::string_view basics = "bynqiuxtdsog";
    if (OnceIn(4))
    {
        return words[Below(words.size())].type;
    }
    switch (depth < deepest ? Below(8) : 0)
    {
        case 7:
            return "a" + Type(depth + 1);
        case 6:
            return std::string("a{") + basics[Below(basics.size())] + Type(depth + 1) + "}";
        case 5:
        {
            std::string fields = Type(depth + 1);
            while (fields.size() < 20 && OnceIn(2))
            {
                fields += Type(depth + 1);
            }
            return "(" + fields + ")";
        }
        case 4:
            return "v";
        default:
            return std::string(1, basics[Below(basics.size())]);
    }
}

std::string Input::PathText()
{
    std::string path = "/";
    for (size_t length = Below(4); length > 0; --length)
    {
        path += (path.size() > 1 ? "/a" : "a") + std::to_string(Below(100));
    }
    return path;
}

std::vector<kit::Value> Input::Elements(const std::string& type, size_t depth)
{
    std::vector<kit::Value> elements;
    for (size_t count = OnceIn(16) ? Below(100) : Below(4); count > 0 && Left(); --count)
    {
        elements.push_back(Of(type, depth + 1));
    }
    return elements;
}

kit::Value Input::Array(const std::string& element, size_t depth)
{
    if (element.front() != '{')
    {
        return kit::Value::Array(element, Elements(element, depth));
    }
    const std::string key(1, element[1]);
    const std::string mapped = element.substr(2, element.size() - 3);
    std::vector<std::pair<kit::Value, kit::Value>> entries;
    for (kit::Value& each : Elements(key, depth))
    {
        entries.emplace_back(std::move(each), Of(mapped, depth + 1));
        if (OnceIn(8))
        {
            entries.emplace_back(entries.back().first, Of(mapped, depth + 1));
        }
    }
    return kit::Value::Dictionary(key, mapped, std::move(entries));
}

kit::Value Input::Of(const std::string& type, size_t depth)
{
    switch (type.front())
    {
        case 'b':
            return bytes.ConsumeBool();
        case 'y':
            return bytes.ConsumeIntegral<uint8_t>();
        case 'n':
            return bytes.ConsumeIntegral<int16_t>();
        case 'q':
            return bytes.ConsumeIntegral<uint16_t>();
        case 'i':
            return bytes.ConsumeIntegral<int32_t>();
        case 'u':
            return bytes.ConsumeIntegral<uint32_t>();
        case 'x':
            return bytes.ConsumeIntegral<int64_t>();
        case 't':
            return bytes.ConsumeIntegral<uint64_t>();
        case 'd':
            return bytes.ConsumeFloatingPoint<double>();
        case 's':
            return Name();
        case 'o':
            return kit::Path{PathText()};
        case 'g':
            return kit::TypeSignature{Type(deepest)};
        case 'v':
            // A variant's type may be as deep again; the message's own limit is never reached.
            return kit::Value::Variant(Of(Type(depth), depth + 1));
        case 'a':
            return Array(type.substr(1), depth);
        default:
            break;
    }
    std::vector<kit::Value> fields;
    for (const std::string& field : kit::SplitSignature(type.substr(1, type.size() - 2)))
    {
        fields.push_back(Of(field, depth + 1));
    }
    return kit::Value::Struct(std::move(fields));
}

kit::Value Input::PropertyMap()
{
    kit::NamedValues values;
    for (size_t count = OnceIn(8) ? Below(80) : Below(6); count > 0 && Left(); --count)
    {
        std::string name;
        std::string type;
        if (OnceIn(4))
        {
            name = Name();
            type = Type();
        }
        else
        {
            const Word& word = words[Below(words.size())];
            name = word.name;
            type = OnceIn(8) ? Type() : word.type;
        }
        values.emplace_back(name, Of(type));
    }
    return kit::AsPropertyMap(values);
}

std::vector<kit::Value> Input::Bent(std::vector<kit::Value> arguments)
{
    const auto at = [&]
    { return arguments.begin() + static_cast<std::ptrdiff_t>(Below(arguments.size())); };
    switch (Below(16))
    {
        case 15:
            arguments.erase(at());
            break;
        case 14:
            arguments.insert(at(), Of(Type()));
            break;
        case 13:
            *at() = Of(Type());
            break;
        case 12:
            arguments.resize(Below(arguments.size()), kit::Value(""));
            break;
        case 11:
            arguments.push_back(Of(Type()));
            break;
        default:
            break;
    }
    return arguments;
}

} // namespace fuzz
