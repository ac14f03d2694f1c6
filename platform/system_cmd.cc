// Command runner stand-in: runs a command line through a shell and waits.
//
// The shell is $NETMGR_SHELL, by default /bin/sh, called as `SHELL -c CMD`;
// tests point it at a script that records the commands instead of running
// them. posix_spawn rather than system(): system() blocks SIGCHLD and ignores
// SIGINT/SIGQUIT in the whole process, which would disturb the application's
// other threads. Nor fork(): it copies the page tables of the whole
// application, milliseconds for a large one, where posix_spawn shares them
// until the shell starts.
#include "platform/zelstorageclient.h"

#include <errno.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

ZelStorageManager &ZelStorageManager::instance()
{
    static ZelStorageManager manager;
    return manager;
}

int ZelStorageManager::systemCmd(const char *command, size_t length)
{
    if (!command)
        return -1;
    // Only the first `length` bytes count, even when the text is longer.
    std::string line(command, strnlen(command, length));
    const char *env_shell = getenv("NETMGR_SHELL");
    std::string shell = (env_shell && *env_shell) ? env_shell : "/bin/sh";

    char dash_c[] = "-c";
    char *argv[] = {&shell[0], dash_c, &line[0], nullptr};

    pid_t pid = 0;
    int error = posix_spawn(&pid, shell.c_str(), nullptr, nullptr, argv, environ);
    if (error == EAGAIN || error == ENOMEM)
        return -1;
    if (error != 0)
        return 127; // the shell could not be started, as shells report it

    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status); // as shells report it
    return -1;
}
