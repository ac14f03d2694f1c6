// The command runner: which bytes run, through which shell, with what result.
#include <stdlib.h>

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
