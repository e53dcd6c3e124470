// Text literals and pointers to text, for text properties of both families.

#include "fixture.hpp"

#include <com/tamm/bmc/debug/dataorigin/client_cache.hpp>

namespace
{

using Origin = ClientCache::com::tamm::bmc::debug::dataorigin;
using OriginEdge = ClientEdge::com::tamm::bmc::debug::dataorigin;

class TextProperties : public ClientTest
{
};

TEST_F(TextProperties, TakeLiterals)
{
    const std::string interface = "com.tamm.bmc.debug.dataorigin";
    kit::FakeService service("com.example.Origin", "/origin", {interface});
    service->SetQuietly({{"debugproperty", ""}});
    const char* const pointer = "pointer";
    const char* const none = nullptr;

    Origin cached("/origin", "com.example.Origin");
    cached.Set_debugproperty("literal");
    EXPECT_EQ(cached.Get_debugproperty(), "literal");
    cached.SetLocked_debugproperty(pointer);
    EXPECT_EQ(cached.Get_debugproperty(), "pointer");
    cached.Set_debugproperty(none);
    EXPECT_EQ(cached.Get_debugproperty(), "");

    OriginEdge edge("com.example.Origin", "/origin");
    edge.Set_debugproperty("literal");
    EXPECT_EQ(edge.Get_debugproperty(), "literal");
    edge.SetLocked_debugproperty(pointer);
    EXPECT_EQ(edge.Get_debugproperty(), "pointer");
}

} // namespace
