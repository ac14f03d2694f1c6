#include "tests/support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

std::string read_file(const std::string &path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

pid_t spawn(const std::vector<std::string> &args, int in, int out, int err)
{
    std::vector<char *> argv;
    for (const std::string &arg : args)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        int fds[] = {in, out, err};
        for (int fd = 0; fd < 3; fd++)
            if (fds[fd] >= 0)
                dup2(fds[fd], fd);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

void clean_up_after_exit(const std::vector<pid_t> &pids, const std::vector<std::string> &dirs,
                         const std::string &commands)
{
    std::vector<std::string> rm = {"sh", "-c", commands + "\nrm -rf \"$@\"", "sh"};
    for (const std::string &dir : dirs)
        if (dir.rfind("/tmp/netmgr-", 0) == 0)
            rm.push_back(dir);
    std::vector<char *> argv;
    for (const std::string &arg : rm)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) < 0)
        return;
    if (fork() != 0) {
        close(fds[0]);
        return; // the write end stays open until this process ends
    }
    int devnull = open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; fd++)
        dup2(devnull, fd);
    for (int fd = 3; fd < 1024; fd++)
        if (fd != fds[0])
            close(fd);
    setsid();
    char byte;
    while (read(fds[0], &byte, 1) > 0) {
    }
    for (pid_t pid : pids)
        kill(pid, SIGTERM);
    execvp("sh", argv.data());
    _exit(0);
}
