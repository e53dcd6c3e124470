// Programs beside a test.

#include <bmcbus/testing.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

// It ended in silence.
TEST(ProcessTest, SaysThatAnInterpreterIsMissing)
{
    const bmcbus::testing::PrivateBus folder;
    const std::string script = folder.Folder() / "script";
    std::ofstream(script) << "#!/no/such/interpreter\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    Process program({script});
    EXPECT_EQ(program.Wait(), 127);
    EXPECT_EQ(program.Output(), "cannot execute " + script + ": No such file or directory\n");
}

// A shell takes the last of two variables of one name, others the first.
TEST(ProcessTest, VariablesTakeThePlaceOfInheritedOnes)
{
    setenv("BMCBUS_WORD", "outer", 1);
    Process shell({"sh", "-c", "echo $BMCBUS_WORD; env | grep -c BMCBUS_WORD"},
                  {"BMCBUS_WORD=inner"});
    EXPECT_EQ(shell.Wait(), 0);
    EXPECT_EQ(shell.Output(), "inner\n1\n");
    unsetenv("BMCBUS_WORD");
}

TEST(ProcessTest, GrandchildrenEndWithTheObject)
{
    pid_t grandchild = 0;
    {
        Process shell({"sh", "-c", "sleep 1000 & echo $!; wait"});
        ASSERT_TRUE(bmcbus::testing::Until([&] { return shell.Output().ends_with('\n'); }));
        grandchild = std::stoi(shell.Output());
        EXPECT_EQ(kill(grandchild, 0), 0);
    }
    // Whoever adopted it may not have reaped it yet.
    EXPECT_TRUE(bmcbus::testing::Until(
        [&]
        {
            std::string line;
            std::getline(std::ifstream("/proc/" + std::to_string(grandchild) + "/stat"), line);
            return line.empty() || line.find(") Z ") != std::string::npos;
        }));
}

} // namespace
