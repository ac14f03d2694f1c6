// The command runner: which bytes run, through which shell, with what result.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/zelstorageclient.h"

namespace
{

const std::string kRecordShell = NETMGR_SOURCE_DIR "/tests/support/record_shell.sh";

class SystemCmdTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/netmgr-cmd-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        unsetenv("NETMGR_SHELL");
    }
    void TearDown() override
    {
        unsetenv("NETMGR_SHELL");
        unsetenv("NETMGR_SHELL_LOG");
        std::filesystem::remove_all(dir_);
    }

    int run(const char *command, size_t length)
    {
        return ZelStorageManager::instance().systemCmd(command, length);
    }

    std::string recorded() const
    {
        std::ifstream in(dir_ + "/commands.log");
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    void use_record_shell()
    {
        setenv("NETMGR_SHELL", kRecordShell.c_str(), 1);
        setenv("NETMGR_SHELL_LOG", (dir_ + "/commands.log").c_str(), 1);
    }

    std::string dir_;
};

} // namespace

TEST_F(SystemCmdTest, ReturnsTheShellsExitStatus)
{
    EXPECT_EQ(run("true", 4), 0);
    EXPECT_EQ(run("exit 7", 6), 7);
    EXPECT_EQ(run("kill -9 $$", 10), 128 + 9);
    EXPECT_EQ(run(nullptr, 10), -1);

    setenv("NETMGR_SHELL", (dir_ + "/no-such-shell").c_str(), 1);
    EXPECT_EQ(run("true", 4), 127);
}

TEST_F(SystemCmdTest, RunsOnlyTheFirstLengthBytes)
{
    EXPECT_EQ(run("exit 37", 6), 3) << "the length cuts the command";
    EXPECT_EQ(run("exit 37", 100), 37) << "a longer length stops at the terminator";
    std::string marker = dir_ + "/marker";
    std::string cmd = "true; touch " + marker;
    EXPECT_EQ(run(cmd.c_str(), 4), 0);
    EXPECT_FALSE(std::filesystem::exists(marker));
    EXPECT_EQ(run(cmd.c_str(), cmd.size()), 0);
    EXPECT_TRUE(std::filesystem::exists(marker));
}

TEST_F(SystemCmdTest, RecordShellLogsEachCommandLineAndRunsNothing)
{
    use_record_shell();
    std::string marker = dir_ + "/marker";
    std::string touch = "touch " + marker;
    EXPECT_EQ(run("/etc/init.d/S42wifi restart", 30), 0);
    EXPECT_EQ(run("wpa_cli p2p_find and more", 16), 0);
    EXPECT_EQ(run(touch.c_str(), touch.size()), 0);
    EXPECT_EQ(recorded(), "/etc/init.d/S42wifi restart\nwpa_cli p2p_find\n" + touch + "\n");
    EXPECT_FALSE(std::filesystem::exists(marker));
}
