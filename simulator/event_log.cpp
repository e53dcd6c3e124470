#include "event_log.hpp"

#include "descriptions.hpp"

#include <bmcbus/testing/text.hpp>

#include <iostream>
#include <stdexcept>
#include <tuple>

namespace simulator
{
namespace
{

using bmcbus::testing::Call;
using bmcbus::testing::CallError;
using bmcbus::testing::Value;
using Item = std::tuple<uint16_t, std::string>;

enum Tag : uint16_t
{
    message = 2,
    concerned = 3,
    arguments = 6
};

int Digit(char digit)
{
    if (digit >= '0' && digit <= '9')
    {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f')
    {
        return digit - 'a' + 10;
    }
    throw std::invalid_argument("an argument block has lowercase hexadecimal digits only");
}

// In brackets. Arguments may be any bytes; the line is UTF-8 all the same.
std::string Shown(const std::string& text)
{
    return "[" + bmcbus::testing::Printable(text, "\\") + "]";
}

std::string Describe(const Item& item)
{
    const auto& [tag, text] = item;
    switch (tag)
    {
        case message:
            return " message=" + Shown(text);
        case concerned:
            return " FQDD=" + Shown(text);
        case arguments:
        {
            std::string all;
            for (const std::string& argument : DecodeArguments(text))
            {
                all += " arg=" + Shown(argument);
            }
            return all;
        }
        default:
            throw std::invalid_argument("unknown tag " + std::to_string(tag));
    }
}

// The entry as a line; throws for contents that no client should send.
std::string Entry(const Call& call)
{
    std::string line = "event: agent=" + call.arguments[2].Body() +
                       " category=" + call.arguments[0].Body() +
                       " severity=" + call.arguments[3].Body() +
                       " id=" + Shown(call.arguments[5].Get<std::string>());
    for (const Item& item : call.arguments[6].Get<std::vector<Item>>())
    {
        line += Describe(item);
    }
    return line;
}

} // namespace

std::vector<std::string> DecodeArguments(const std::string& block)
{
    std::string bytes;
    if (block.size() % 2 != 0)
    {
        throw std::invalid_argument("an argument block has two digits a byte");
    }
    for (size_t i = 0; i < block.size(); i += 2)
    {
        bytes += static_cast<char>(Digit(block[i]) * 16 + Digit(block[i + 1]));
    }
    if (bytes.size() < 2 || !bytes.ends_with(std::string(2, '\0')))
    {
        throw std::invalid_argument("an argument block ends in two zero bytes");
    }
    bytes.pop_back();
    std::vector<std::string> texts;
    for (size_t at = 0; at < bytes.size();)
    {
        const size_t end = bytes.find('\0', at);
        texts.push_back(bytes.substr(at, end - at));
        at = end + 1;
    }
    return texts;
}

EventLog::EventLog(bmcbus::testing::Service& service)
{
    auto& object = service.AddObject("/com/tamm/ovrik/wharfd/wharfd",
                                     {simulator::Describe("com.tamm.ovrik.wharfd.wharfd")});
    object.OnCall("NQRCE_REQ_TYPE_LOG_QZL_EVENT",
                  [](const Call& call) -> std::vector<Value>
                  {
                      try
                      {
                          std::cout << Entry(call) << std::endl;
                      }
                      catch (const std::invalid_argument& refused)
                      {
                          throw CallError(SD_BUS_ERROR_INVALID_ARGS, refused.what());
                      }
                      return {0};
                  });
}

} // namespace simulator
