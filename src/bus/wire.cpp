// The untyped half of the codec: each step of reading or writing a message, checked, with the name
// of the step in the exception. The typed half is made of these in wire.hpp.

#include <bmcbus/wire.hpp>

#include "bus/bus.hpp"
#include "bus/message_size.hpp"
#include "bus/text.hpp"

#include <cerrno>
#include <cstring>

namespace bmcbus::client
{
namespace
{

size_t Alignment(char code)
{
    switch (code)
    {
        case SD_BUS_TYPE_BYTE:
        case SD_BUS_TYPE_SIGNATURE:
        case SD_BUS_TYPE_VARIANT:
            return 1;
        case SD_BUS_TYPE_INT16:
        case SD_BUS_TYPE_UINT16:
            return 2;
        case SD_BUS_TYPE_INT64:
        case SD_BUS_TYPE_UINT64:
        case SD_BUS_TYPE_DOUBLE:
        case SD_BUS_TYPE_STRUCT:
        case SD_BUS_TYPE_STRUCT_BEGIN:
        case SD_BUS_TYPE_DICT_ENTRY:
        case SD_BUS_TYPE_DICT_ENTRY_BEGIN:
            return 8;
        default:
            return 4;
    }
}

// What an opening takes before the contents. An array's length stands before their first byte.
int GrowBy(sd_bus_message* message, char container, const char* contents)
{
    switch (container)
    {
        case SD_BUS_TYPE_ARRAY:
        {
            const int result = Grow(message, 4, 4);
            return result < 0 ? result : Grow(message, Alignment(*contents), 0);
        }
        case SD_BUS_TYPE_VARIANT:
            return Grow(message, 1, 2 + std::strlen(contents));
        default:
            return Grow(message, Alignment(container), 0);
    }
}

// sd-bus gives an array of the other byte order only number by number.
bool ReadTurned(sd_bus_message* message, char code, size_t width, FlatArray& array)
{
    const char contents[] = {code, '\0'};
    if (!Enter(message, SD_BUS_TYPE_ARRAY, contents, step::enterList))
    {
        return false;
    }
    uint64_t number = 0;
    const auto* const first = reinterpret_cast<const std::byte*>(&number);
    while (ReadBasic(message, code, &number))
    {
        array.turned.insert(array.turned.end(), first, first + width);
    }
    Exit(message, step::exitList);
    array.data = array.turned.data();
    array.bytes = array.turned.size();
    return true;
}

} // namespace

bool ReadBasic(sd_bus_message* message, char code, void* value)
{
    return Require(sd_bus_message_read_basic(message, code, value),
                   "sd_bus_message_read_basic fundamental") > 0;
}

bool ReadFlag(sd_bus_message* message, bool& value)
{
    int wide = 0;
    const bool found = Require(sd_bus_message_read_basic(message, SD_BUS_TYPE_BOOLEAN, &wide),
                               "sd_bus_message_read_basic bool") > 0;
    if (found)
    {
        value = wide != 0;
    }
    return found;
}

bool ReadText(sd_bus_message* message, char code, const char*& text)
{
    return Require(sd_bus_message_read_basic(message, code, &text),
                   "sd_bus_message_read_basic string") > 0;
}

bool ReadString(sd_bus_message* message, std::string& text)
{
    const char* found = nullptr;
    if (!ReadText(message, 's', found))
    {
        return false;
    }
    text = found;
    return true;
}

bool ReadFlatArray(sd_bus_message* message, char code, size_t width, FlatArray& array)
{
    const int result = sd_bus_message_read_array(message, code, &array.data, &array.bytes);
    if (result == -EOPNOTSUPP)
    {
        return ReadTurned(message, code, width, array);
    }
    return Require(result, "sd_bus_message_read_array") > 0;
}

bool Enter(sd_bus_message* message, char container, const char* contents, const char* step)
{
    return Require(sd_bus_message_enter_container(message, container, contents), step) > 0;
}

void Exit(sd_bus_message* message, const char* step)
{
    Require(sd_bus_message_exit_container(message), step);
}

const char* PeekVariant(sd_bus_message* message)
{
    char type = 0;
    const char* contents = nullptr;
    if (Require(sd_bus_message_peek_type(message, &type, &contents),
                "sd_bus_message_verify_type variant") == 0)
    {
        return nullptr;
    }
    if (type != SD_BUS_TYPE_VARIANT)
    {
        throw Error(ENXIO, "sd_bus_message_skip variant");
    }
    return contents;
}

void SkipVariant(sd_bus_message* message)
{
    Require(sd_bus_message_skip(message, "v"), "sd_bus_message_skip variant");
}

void AppendBasic(sd_bus_message* message, char code, const void* value)
{
    const size_t width = Alignment(code); // of a number
    Require(Grow(message, width, width), "sd_bus_message_append_basic");
    Require(sd_bus_message_append_basic(message, code, value), "sd_bus_message_append_basic");
}

void AppendChecked(sd_bus_message* message, char code, const std::string& text)
{
    const bool travels = code == SD_BUS_TYPE_OBJECT_PATH
                             ? sd_bus_object_path_is_valid(text.c_str()) > 0 && IsWhole(text)
                             : IsBusText(text);
    const size_t length = code == SD_BUS_TYPE_SIGNATURE ? 1 : 4;
    Require(Grow(message, length, length + text.size() + 1), "sd_bus_message_append_basic");
    if (!travels)
    {
        throw Error(EINVAL, "sd_bus_message_append_basic");
    }
    Require(sd_bus_message_append_basic(message, code, text.c_str()),
            "sd_bus_message_append_basic");
}

void AppendFlatArray(sd_bus_message* message, char code, const void* data, size_t bytes)
{
    const char contents[] = {code, '\0'};
    Require(GrowBy(message, SD_BUS_TYPE_ARRAY, contents), "sd_bus_message_append_array");
    Require(Grow(message, 1, bytes), "sd_bus_message_append_array");
    Require(sd_bus_message_append_array(message, code, data, bytes), "sd_bus_message_append_array");
}

void Open(sd_bus_message* message, char container, const char* contents)
{
    Require(GrowBy(message, container, contents), "sd_bus_message_open_container");
    Require(sd_bus_message_open_container(message, container, contents),
            "sd_bus_message_open_container");
}

void Close(sd_bus_message* message)
{
    Require(sd_bus_message_close_container(message), "sd_bus_message_close_container");
}

} // namespace bmcbus::client
