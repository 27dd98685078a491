#include "agent/Daemon.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace Daemon {

namespace {

const char* const kOption = "--daemon";
int started = -1;  // the pipe's end that tells the caller's process

[[noreturn]] void AwaitStart(pid_t agent, int pipe_end) {
    char byte = 0;
    if (read(pipe_end, &byte, 1) == 1) {
        _exit(0);
    }
    int status = 0;
    waitpid(agent, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 70);  // EX_SOFTWARE
}

}  // namespace

void Enter(std::vector<std::string>& arguments) {
    const auto option = std::find(arguments.begin(), arguments.end(), kOption);
    if (option == arguments.end()) {
        return;
    }
    arguments.erase(option);
    int ends[2] = {-1, -1};
    const pid_t agent = pipe2(ends, O_CLOEXEC) == 0 ? fork() : -1;
    if (agent < 0) {
        std::perror("watchpost: --daemon");
        std::exit(71);  // EX_OSERR
    }
    if (agent > 0) {
        close(ends[1]);
        AwaitStart(agent, ends[0]);
    }
    close(ends[0]);
    started = ends[1];
    setsid();
}

void Started() {
    if (started < 0) {
        return;
    }
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(null, standard);
    }
    close(null);
    [[maybe_unused]] const ssize_t told = write(started, "x", 1);
    close(started);
    started = -1;
    [[maybe_unused]] const int moved = chdir("/");
}

}  // namespace Daemon
