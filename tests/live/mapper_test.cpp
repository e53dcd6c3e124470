// Objects whose service the object mapper names.

#include "fixture.hpp"

using testing::ElementsAre;

namespace
{

class LiveByMapper : public LiveTest
{
  protected:
    void StartMapper(const std::string& service = fanService)
    {
        mapper = std::make_unique<kit::FakeMapper>();
        mapper->Add(fanPath, service, {fanInterface});
    }
    bmcbus::Live<Fans> Search() { return Follow(""); }

    std::unique_ptr<kit::FakeMapper> mapper;
};

TEST_F(LiveByMapper, KnowsTheService)
{
    StartMapper();
    StartFans();
    const bmcbus::Live<Fans> live = Search();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_EQ(live.Report().service, fanService);
    EXPECT_EQ(mapper->Calls().size(), 1U);
}

TEST_F(LiveByMapper, TheServiceComesLast)
{
    StartMapper();
    const bmcbus::Live<Fans> live = Search();
    Deliver();
    StartFans();
    EXPECT_TRUE(Becomes(live, LiveState::Live));
}

TEST_F(LiveByMapper, TheMapperComesLast)
{
    StartFans();
    const bmcbus::Live<Fans> live = Search();
    Deliver();
    EXPECT_EQ(live.State(), LiveState::Absent);
    StartMapper();
    EXPECT_TRUE(Becomes(live, LiveState::Live));
}

// It looks at a new service some time after the service's name has come.
TEST_F(LiveByMapper, TheMapperKnowsLate)
{
    mapper = std::make_unique<kit::FakeMapper>();
    const bmcbus::Live<Fans> live = Search();
    Deliver();
    StartFans();
    ASSERT_TRUE(Until([&] { return mapper->Calls("GetObject").size() >= 4; }));
    EXPECT_EQ(live.State(), LiveState::Absent);
    mapper->Add(fanPath, fanService, {fanInterface});
    EXPECT_TRUE(Becomes(live, LiveState::Live));
}

TEST_F(LiveByMapper, TheMapperRestarts)
{
    StartMapper();
    StartFans();
    const bmcbus::Live<Fans> live = Search();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    Seen();
    mapper.reset();
    Deliver();
    fans->Crash();
    ASSERT_TRUE(Becomes(live, LiveState::Lost));
    StartMapper();
    Deliver();
    fans->Start();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_THAT(Seen(), ElementsAre("Lost", "Reading", "Live"));
}

TEST_F(LiveByMapper, TheServiceMovesToAnotherName)
{
    StartMapper();
    StartFans();
    const bmcbus::Live<Fans> live = Search();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    fans.reset();
    ASSERT_TRUE(Becomes(live, LiveState::Lost));
    mapper->Add(fanPath, "com.example.OtherFans", {fanInterface});
    kit::FakeService other("com.example.OtherFans", fanPath, {fanInterface});
    other->SetQuietly({{"fanCount", uint8_t{6}}});
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_EQ(live->Get_fanCount(), 6);
    EXPECT_EQ(live.Report().service, "com.example.OtherFans");
}

TEST_F(LiveByMapper, ManyShareOneQuestion)
{
    mapper = std::make_unique<kit::FakeMapper>();
    fans = std::make_unique<kit::FakeService>(std::vector<std::string>{fanService});
    std::vector<bmcbus::Live<Fans>> lives;
    for (int i = 0; i < 40; ++i)
    {
        const std::string path = fanPath + "/" + std::to_string(i);
        fans->AddObject(path, {fanInterface});
        mapper->Add(path, fanService, {fanInterface});
        lives.push_back(Follow("", path));
    }
    for (const auto& live : lives)
    {
        ASSERT_TRUE(Becomes(live, LiveState::Live));
    }
    EXPECT_LE(mapper->Calls().size(), 2U) << "who has them, and once more where the manager is";
}

// More than have rules of their own used to wait for the mapper's next word.
TEST_F(LiveByMapper, ManyAreAnnouncedToNobody)
{
    mapper = std::make_unique<kit::FakeMapper>();
    fans = std::make_unique<kit::FakeService>(std::vector<std::string>{fanService});
    fans->Manage("/");
    std::vector<bmcbus::Live<Fans>> lives;
    for (int i = 0; i < 20; ++i)
    {
        lives.push_back(Follow("", fanPath + "/" + std::to_string(i)));
    }
    ASSERT_TRUE(Until([&] { return bmcbus::ReportLive(connection).rules == 3; }))
        << "two of the mapper, one of what is announced";
    const auto has = Value::Dictionary("s", "as", {{fanService, Lines{fanInterface}}});
    mapper->On("GetSubTree").Reply({Value::Dictionary("s", "a{sas}", {{fanPath + "/3", has}})});
    fans->AddObject(fanPath + "/3", {fanInterface});
    EXPECT_TRUE(Becomes(lives[3], LiveState::Live));
}

TEST_F(LiveByMapper, NothingIsAskedWhileNothingHappens)
{
    mapper = std::make_unique<kit::FakeMapper>();
    const bmcbus::Live<Fans> live = Search();
    ASSERT_TRUE(Until([&] { return mapper->Calls().size() >= 3; }));
    EXPECT_EQ(live.State(), LiveState::Absent);
    EXPECT_LE(mapper->Calls().size(), 4U) << "the pauses grow";
}

} // namespace
