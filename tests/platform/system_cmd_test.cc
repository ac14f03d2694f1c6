// The command runner: which bytes run, through which shell, with what result.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/zelstorageclient.h"

namespace
{

int run(const char *command, size_t length)
{
    return ZelStorageManager::instance().systemCmd(command, length);
}

} // namespace

TEST(SystemCmdTest, RunsTheFirstLengthBytesAndReturnsTheExitStatus)
{
    unsetenv("NETMGR_SHELL");
    EXPECT_EQ(run("exit 37", 6), 3) << "the length cuts the command";
    EXPECT_EQ(run("exit 37", 100), 37) << "a longer length stops at the terminator";
    EXPECT_EQ(run("kill -9 $$", 10), 128 + 9);
    EXPECT_EQ(run(nullptr, 10), -1);
    setenv("NETMGR_SHELL", "/nonexistent/shell", 1);
    EXPECT_EQ(run("true", 4), 127);
}

TEST(SystemCmdTest, RecordShellLogsEachCommandLineAndRunsNothing)
{
    char tmpl[] = "/tmp/netmgr-cmd-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string dir = tmpl, log = dir + "/commands.log", marker = dir + "/marker";
    setenv("NETMGR_SHELL", NETMGR_SOURCE_DIR "/tests/support/record_shell.sh", 1);
    setenv("NETMGR_SHELL_LOG", log.c_str(), 1);

    std::string touch = "touch " + marker;
    EXPECT_EQ(run("/etc/init.d/S42wifi restart", 30), 0);
    EXPECT_EQ(run("wpa_cli p2p_find and more", 16), 0);
    EXPECT_EQ(run(touch.c_str(), touch.size()), 0);
    std::stringstream recorded;
    recorded << std::ifstream(log).rdbuf();
    EXPECT_EQ(recorded.str(), "/etc/init.d/S42wifi restart\nwpa_cli p2p_find\n" + touch + "\n");
    EXPECT_FALSE(std::filesystem::exists(marker));
    std::filesystem::remove_all(dir);
}
