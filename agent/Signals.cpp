#include "agent/Signals.h"

#include <semaphore.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace Signals {

namespace {

sem_t stop;
void (*stop_by)() = nullptr;

void OnStop(int /*number*/) {
    const int saved_errno = errno;
    sem_post(&stop);
    errno = saved_errno;
}

void CallStop(int /*number*/) {
    stop_by();
}

// Not SIG_IGN, which commands would inherit.
void Ignore(int /*number*/) {}

void Handle(std::initializer_list<int> signals, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    action.sa_handler = handler;
    for (const int number : signals) {
        sigaction(number, &action, nullptr);
    }
}

}  // namespace

void Install() {
    sem_init(&stop, 0, 0);
    Handle({SIGTERM, SIGINT}, OnStop);
    Handle({SIGHUP, SIGPIPE, SIGXFSZ}, Ignore);
}

void StopBy(void (*call)()) {
    stop_by = call;
    Handle({SIGTERM, SIGINT}, CallStop);
}

void OutliveFileLimit() {
    Handle({SIGXFSZ}, Ignore);
}

void AwaitStop() {
    while (sem_wait(&stop) != 0) {
    }
}

}  // namespace Signals
