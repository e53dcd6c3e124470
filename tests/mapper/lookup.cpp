// The search that its caller owns. Built from the library's objects, since it is not exported.

#include "fixture.hpp"

#include <bus/object_mapper_lookup.hpp>

#include <stdexcept>

using ObjectMapper::internal::LookupServiceAsync;

namespace
{

struct Search
{
    bmcbus::Slot slot;
    int answers = 0;
    std::string service;
    bool dropInside = false;

    static void Answered(bool, std::string& service, void* context)
    {
        auto& search = *static_cast<Search*>(context);
        ++search.answers;
        search.service = service;
        if (search.dropInside)
        {
            search.slot.reset();
        }
    }

    void Start() { slot = LookupServiceAsync(nullptr, "/p", "x.I", Answered, this); }
};

class MapperLookup : public MapperTest
{
  protected:
    void Dispatched(const Search& search)
    {
        EXPECT_TRUE(Dispatch(connection, [&] { return search.answers != 0; }));
        EXPECT_TRUE(bmcbus::testing::DispatchPending(connection));
    }
};

TEST_F(MapperLookup, AnswersOnceAndLetsGo)
{
    mapper.Add("/p", "a.svc", {"x.I"});
    for (const bool dropInside : {false, true})
    {
        Search search;
        search.dropInside = dropInside;
        search.Start();
        Dispatched(search);
        EXPECT_EQ(search.answers, 1);
        EXPECT_EQ(search.service, "a.svc");
        EXPECT_EQ(search.slot == nullptr, dropInside);
        search.Start(); // a second one while the first is still held
        search.answers = 0;
        Dispatched(search);
        EXPECT_EQ(search.answers, 1);
    }
    EXPECT_EQ(Logged(), "");
}

TEST_F(MapperLookup, DroppedSearchIsNeverAnswered)
{
    mapper.Add("/p", "a.svc", {"x.I"});
    mapper.On("GetObject").Hold();
    Search dropped;
    Search kept;
    dropped.Start();
    kept.Start();
    sd_bus_flush(connection);
    EXPECT_TRUE(mapper.WaitForHeld(2));
    dropped.slot.reset();
    mapper.Release();
    Dispatched(kept);
    EXPECT_EQ(dropped.answers, 0);
    EXPECT_EQ(kept.answers, 1);
}

TEST_F(MapperLookup, OutlivesItsConnection)
{
    mapper.On("GetObject").NoReply();
    Search search;
    search.Start();
    sd_bus_close(connection);
    connection = sd_bus_unref(connection);
    EXPECT_EQ(search.answers, 0);
    search.slot.reset(); // the last reference to the connection
    EXPECT_EQ(search.answers, 0);
}

TEST_F(MapperLookup, RefusalsAreThoseOfThePublicFunction)
{
    Search search;
    EXPECT_THROW(search.slot =
                     LookupServiceAsync(nullptr, "/\xC3", "x.I", Search::Answered, &search),
                 std::runtime_error);
    EXPECT_EQ(search.slot, nullptr);
    const std::string text = "sd_bus_message_append returned an error";
    EXPECT_EQ(Logged(), Line(2, "GetObjectAsync", text + ", irv=-22") +
                            Line(2, "GetObjectAsync", "ex: " + text) +
                            Line(2, "GetObjectAsync", " path: /\xC3") +
                            Line(2, "GetObjectAsync", " interface: x.I") +
                            Line(2, "PathAndInterfaceToServiceAsync", "ex: " + text) +
                            Line(2, "PathAndInterfaceToServiceAsync", " path: /\xC3"));
}

} // namespace
