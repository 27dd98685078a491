#include "agent/Daemon.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "agent/StartError.h"

namespace Daemon {

namespace {

int started = -1;  // the pipe's end that tells the caller's process

[[noreturn]] void AwaitStart(pid_t agent, int pipe_end) {
    char byte = 0;
    if (read(pipe_end, &byte, 1) == 1) {
        _exit(0);
    }
    int status = 0;
    waitpid(agent, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : EX_SOFTWARE);
}

}  // namespace

void Enter() {
    int ends[2] = {-1, -1};
    const pid_t agent = pipe2(ends, O_CLOEXEC) == 0 ? fork() : -1;
    if (agent < 0) {
        throw StartError{EX_OSERR, std::string("--daemon: ") + std::strerror(errno)};
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
