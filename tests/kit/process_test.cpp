// Programs beside a test.

#include <bmcbus/testing.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>

using bmcbus::testing::Process;

namespace
{

TEST(ProcessTest, KeepsOutputAndStatus)
{
    Process program({"sh", "-c", "echo one; echo \"$WORD\" >&2; read line || exit 3"},
                    {"WORD=two"});
    EXPECT_TRUE(program.Says("two"));
    EXPECT_EQ(program.Wait(), 3); // there is nothing to read
    EXPECT_EQ(program.Output(), "one\ntwo\n");
    EXPECT_FALSE(program.Running());
    EXPECT_FALSE(program.Says("three"));
    program.Signal(SIGTERM);
    EXPECT_EQ(program.Wait(), 3);
}

TEST(ProcessTest, OutputHoldsNothingUp)
{
    Process program({"sh", "-c",
                     "i=0; while [ $i -lt 3000 ]; do echo \"$0 $0 $0 $0\"; "
                     "i=$((i + 1)); done; exec sleep 1000",
                     std::string(100, 'x')});
    EXPECT_TRUE(bmcbus::testing::Until([&] { return program.Output().size() == 3000UL * 404; }));
    EXPECT_TRUE(program.Running());
    program.Signal(SIGKILL);
    EXPECT_EQ(program.Wait(), -1);
}

TEST(ProcessTest, SaysWhatCannotRun)
{
    EXPECT_THROW(Process({"no-such-program"}), std::runtime_error);
    EXPECT_THROW(Process({"/no/such/program"}), std::runtime_error);
    EXPECT_EQ(Process({"/"}).Wait(), 127); // nothing to execute, whatever its rights say
}

} // namespace
