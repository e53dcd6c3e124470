// Replies to calls with results: each ends once, with the value that was sent or the error that
// fits.

#include "check.hpp"
#include "classes.hpp"
#include "wire.hpp"

#include <bmcbus/request.hpp>

#include <optional>

namespace
{

using namespace fuzz;

using Edge = ClientEdge::com::tamm::bmc::Thermal::FanReporting;
using FanData = std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>>;
using Mixed = std::tuple<std::string, std::vector<std::tuple<int32_t, std::string>>, double>;

// Starts a call, answers it with these, and gives what it ended with.
template <class T, class Start>
bmcbus::Result<T> Ended(const Start& start, const std::vector<kit::Value>& reply)
{
    std::optional<bmcbus::Result<T>> told;
    size_t times = 0;
    const bmcbus::Call call = start(
        [&](bmcbus::Result<T> result)
        {
            told = std::move(result);
            ++times;
        });
    TheWire().Serve([&](sd_bus_message* asked) { Reply(asked, reply); });
    Expect(times == 1 && !call.Pending(), "a call ends once");
    return *std::move(told);
}

// A result must be there when the types say so, and be these values.
template <class T>
void Compare(const bmcbus::Result<T>& result, bool fits, const std::vector<kit::Value>& right)
{
    Expect(result.has_value() == fits, "the types decide");
    if (!fits)
    {
        Expect(result.error().kind == bmcbus::CallFailure::ReplyTypes, "the error names them");
        return;
    }
    std::vector<kit::Value> got;
    if constexpr (std::is_same_v<T, Mixed>)
    {
        std::apply([&](const auto&... value) { (got.emplace_back(value), ...); }, *result);
    }
    else
    {
        got.emplace_back(*result);
    }
    for (size_t i = 0; i < got.size(); ++i)
    {
        Expect(Same(got[i], AsKept(right.at(i))), "the value is the one that was sent");
    }
}

template <class T, class Start>
void Read(Input& input, const Start& start)
{
    const std::string type = kit::SignatureOf<T>();
    const std::vector<kit::Value> reply = input.Bent({kit::Value::Variant(input.Of(type))});
    const bool fits = !reply.empty() && reply[0].Signature() == "v" &&
                      reply[0].Children().at(0).Signature() == type;
    Compare<T>(Ended<T>(start, reply), fits,
               fits ? reply[0].Children() : std::vector<kit::Value>());
}

void ReadAll(Input& input, Edge& edge)
{
    const std::vector<kit::Value> reply = input.Bent({input.PropertyMap()});
    const auto result =
        Ended<Edge::AllProperties>([&](auto then) { return edge.Async_GetAll(then); }, reply);
    const bool fits = !reply.empty() && reply[0].Signature() == "a{sv}";
    Expect(result.has_value() == fits, "a map of properties is one");
    for (const kit::Value& entry : fits ? reply[0].Children() : std::vector<kit::Value>())
    {
        Expect(result->map.contains(entry.Children().at(0).Get<std::string>()), "all are there");
    }
    if (fits && result->values.fanCount)
    {
        Expect(result->map.contains("fanCount"), "a member is in the map, too");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size, Words<Fans>());
    sd_bus* bus = TheWire().Default();
    Edge edge(bus, "com.example.Service", "/com/example/object");
    while (input.Left())
    {
        switch (input.Below(4))
        {
            case 0:
                Read<uint8_t>(input, [&](auto then) { return edge.Async_Get_fanCount(then); });
                break;
            case 1:
                Read<FanData>(input, [&](auto then) { return edge.Async_Get_fanPWMData(then); });
                break;
            case 2:
                ReadAll(input, edge);
                break;
            default:
            {
                const auto reply = input.Bent({input.Of("s"), input.Of("a(is)"), input.Of("d")});
                const auto ask = [&](auto then)
                {
                    return bmcbus::Request(bus, "com.example.Service", "/a", "com.example.A", "Do")
                        .Async<std::string, std::vector<std::tuple<int32_t, std::string>>, double>(
                            then);
                };
                Compare<Mixed>(Ended<Mixed>(ask, reply),
                               kit::SignatureOf(reply).starts_with("sa(is)d"), reply);
            }
        }
    }
    return 0;
}
