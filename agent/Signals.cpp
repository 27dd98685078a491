#include "agent/Signals.h"

#include <semaphore.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace Signals {

namespace {

sem_t stop;

void OnStop(int /*number*/) {
    const int saved_errno = errno;
    sem_post(&stop);
    errno = saved_errno;
}

// Not SIG_IGN, which commands would inherit.
void Ignore(int /*number*/) {}

}  // namespace

void Install() {
    sem_init(&stop, 0, 0);
    struct sigaction action = {};
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    action.sa_handler = OnStop;
    for (const int number : {SIGTERM, SIGINT}) {
        sigaction(number, &action, nullptr);
    }
    action.sa_handler = Ignore;
    for (const int number : {SIGHUP, SIGPIPE, SIGXFSZ}) {
        sigaction(number, &action, nullptr);
    }
}

void AwaitStop() {
    while (sem_wait(&stop) != 0) {
    }
}

}  // namespace Signals
