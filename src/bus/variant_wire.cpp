// Any value from and to a message, along the signature that the message or the value has.

#include "bus/bus.hpp"
#include "bus/signature.hpp"
#include "bus/variant_inside.hpp"

#include <cerrno>
#include <stdexcept>

namespace bmcbus
{

namespace
{

using client::step::enterList;
using client::step::enterMap;
using client::step::enterTuple;
using client::step::enterVariant;
using client::step::exitList;
using client::step::exitMap;
using client::step::exitTuple;
using client::step::exitVariant;

// A view's text with its end, as sd-bus takes it.
std::string Ended(std::string_view text)
{
    return std::string(text);
}

std::string_view Inside(std::string_view brackets)
{
    return brackets.substr(1, brackets.size() - 2);
}

class Reader
{
  public:
    explicit Reader(sd_bus_message* message) : message_(message) {}

    // What stands at a place of this type; none where an array has ended.
    bool Place(std::string_view type, Variant& value)
    {
        return type == "v" ? Content(value) : Value(type, value);
    }

  private:
    bool Content(Variant& value)
    {
        const char* peeked = client::PeekVariant(message_);
        if (peeked == nullptr)
        {
            return false;
        }
        const std::string contents = peeked;
        client::Enter(message_, SD_BUS_TYPE_VARIANT, contents.c_str(), enterVariant);
        Value(contents, value);
        client::Exit(message_, exitVariant);
        return true;
    }

    bool Value(std::string_view type, Variant& value)
    {
        const char code = type.front();
        switch (code)
        {
            case 's':
            case 'o':
            case 'g':
                return Text(code, value);
            case 'b':
                return Flag(value);
            case 'h':
                return Descriptor(value);
            case 'v':
                return Nested(value);
            case 'a':
                return type[1] == '{' ? Dictionary(type, value) : Array(type, value);
            case '(':
                return Struct(type, value);
            default:
                return Number(code, value);
        }
    }

    bool Text(char code, Variant& value)
    {
        const char* text = nullptr;
        const bool found = client::ReadText(message_, code, text);
        if (found)
        {
            value = VariantInside::Text(code, text);
        }
        return found;
    }

    bool Flag(Variant& value)
    {
        bool flag = false;
        const bool found = client::ReadFlag(message_, flag);
        value = VariantInside::Number('b', flag ? 1 : 0);
        return found;
    }

    bool Number(char code, Variant& value)
    {
        std::byte raw[8]{};
        const bool found = client::ReadBasic(message_, code, raw);
        value = VariantInside::Number(code, WidenedNumber(code, raw));
        return found;
    }

    bool Descriptor(Variant& value)
    {
        UnixFd fd;
        const bool found = client::Wire<UnixFd>::Read(message_, fd);
        value = VariantInside::Descriptor(std::move(fd));
        return found;
    }

    bool Nested(Variant& value)
    {
        Variant content;
        const bool found = Content(content);
        if (found)
        {
            value = Variant::MakeNested(std::move(content));
        }
        return found;
    }

    bool Array(std::string_view type, Variant& value)
    {
        const std::string element = Ended(type.substr(1));
        if (const size_t width = NumberWidth(element.front()); width > 0)
        {
            client::FlatArray array;
            const bool found = client::ReadFlatArray(message_, element.front(), width, array);
            value = VariantInside::Numbers(element.front(), array.data, array.bytes);
            return found;
        }
        if (!client::Enter(message_, SD_BUS_TYPE_ARRAY, element.c_str(), enterList))
        {
            return false;
        }
        std::vector<Variant> items;
        for (Variant item; Place(element, item);)
        {
            items.push_back(std::move(item));
        }
        client::Exit(message_, exitList);
        value = VariantInside::Container(Ended(type), std::move(items));
        return true;
    }

    bool Dictionary(std::string_view type, Variant& value)
    {
        const std::string element = Ended(type.substr(1));
        const std::string entry = Ended(Inside(element));
        if (!client::Enter(message_, SD_BUS_TYPE_ARRAY, element.c_str(), enterMap))
        {
            return false;
        }
        std::vector<Variant> items;
        while (client::Enter(message_, SD_BUS_TYPE_DICT_ENTRY, entry.c_str(), enterTuple))
        {
            Fields(entry, items);
            client::Exit(message_, exitTuple);
        }
        client::Exit(message_, exitMap);
        value = VariantInside::Container(Ended(type), std::move(items));
        return true;
    }

    bool Struct(std::string_view type, Variant& value)
    {
        const std::string fields = Ended(Inside(type));
        if (!client::Enter(message_, SD_BUS_TYPE_STRUCT, fields.c_str(), enterTuple))
        {
            return false;
        }
        std::vector<Variant> items;
        Fields(fields, items);
        client::Exit(message_, exitTuple);
        value = VariantInside::Container(Ended(type), std::move(items));
        return true;
    }

    void Fields(std::string_view types, std::vector<Variant>& items)
    {
        while (!types.empty())
        {
            const std::string_view type = types.substr(0, CompleteType(types));
            if (!Place(type, items.emplace_back()))
            {
                throw Error(EBADMSG, exitTuple);
            }
            types.remove_prefix(type.size());
        }
    }

    sd_bus_message* message_;
};

class Writer
{
  public:
    explicit Writer(sd_bus_message* message) : message_(message) {}

    void Place(std::string_view type, const Variant& value)
    {
        if (type == "v")
        {
            Content(value);
        }
        else
        {
            Value(value);
        }
    }

  private:
    void Content(const Variant& value)
    {
        client::Open(message_, SD_BUS_TYPE_VARIANT, value.Signature().c_str());
        Value(value);
        client::Close(message_);
    }

    void Value(const Variant& value)
    {
        const char type = VariantInside::Type(value);
        switch (type)
        {
            case 's':
            case 'o':
            case 'g':
                return client::AppendChecked(message_, type, VariantInside::TextOf(value));
            case 'b':
            {
                const int wide = VariantInside::Bits(value) != 0 ? 1 : 0;
                return client::AppendBasic(message_, type, &wide);
            }
            case 'h':
                return client::Wire<UnixFd>::Append(message_, VariantInside::Descriptor(value));
            case 'v':
                return Content(VariantInside::Items(value).front());
            case 'a':
                return Array(value);
            case '(':
                return Struct(Inside(VariantInside::NodeSignature(value)), SD_BUS_TYPE_STRUCT,
                              VariantInside::Items(value));
            default:
                return Number(type, VariantInside::Bits(value));
        }
    }

    void Number(char type, uint64_t bits)
    {
        std::byte raw[8]{};
        StoreNumber(type, bits, raw);
        client::AppendBasic(message_, type, raw);
    }

    void Array(const Variant& value)
    {
        const std::string element = Ended(VariantInside::NodeSignature(value).substr(1));
        if (NumberWidth(element.front()) > 0)
        {
            const std::span<const std::byte> raw = VariantInside::Raw(value);
            return client::AppendFlatArray(message_, element.front(), raw.data(), raw.size());
        }
        const bool dictionary = element.front() == '{';
        client::Open(message_, SD_BUS_TYPE_ARRAY, element.c_str());
        const std::span<const Variant> items = VariantInside::Items(value);
        for (size_t i = 0; i < items.size(); i += dictionary ? 2 : 1)
        {
            if (dictionary)
            {
                Struct(Inside(element), SD_BUS_TYPE_DICT_ENTRY, items.subspan(i, 2));
            }
            else
            {
                Place(element, items[i]);
            }
        }
        client::Close(message_);
    }

    void Struct(std::string_view types, char container, std::span<const Variant> items)
    {
        client::Open(message_, container, Ended(types).c_str());
        for (const Variant& item : items)
        {
            const std::string_view type = types.substr(0, CompleteType(types));
            Place(type, item);
            types.remove_prefix(type.size());
        }
        client::Close(message_);
    }

    sd_bus_message* message_;
};

} // namespace

namespace client
{

bool Wire<Variant>::Read(sd_bus_message* message, Variant& value)
{
    try
    {
        return Reader(message).Place("v", value);
    }
    catch (const std::invalid_argument&)
    {
        // Nested deeper than a bus lets pass.
        throw Error(EBADMSG, step::enterVariant);
    }
}

void Wire<Variant>::Append(sd_bus_message* message, const Variant& value)
{
    if (!value.HasValue())
    {
        throw Error(EINVAL, "sd_bus_message_open_container");
    }
    Writer(message).Place("v", value);
}

} // namespace client
} // namespace bmcbus
