#include "tests/support/process.h"

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
        int fds[] = {in, out, err};
        for (int fd = 0; fd < 3; fd++)
            if (fds[fd] >= 0)
                dup2(fds[fd], fd);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}
