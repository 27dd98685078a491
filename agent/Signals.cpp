#include "agent/Signals.h"

#include <semaphore.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace Signals {

namespace {

volatile std::sig_atomic_t stop_requested = 0;
sem_t arrived;

void OnSignal(int number) {
    const int saved_errno = errno;
    if (number == SIGPIPE || number == SIGXFSZ) {
        return;  // the write's own error tells
    }
    if (number != SIGHUP) {
        stop_requested = 1;
    }
    sem_post(&arrived);
    errno = saved_errno;
}

}  // namespace

void Install() {
    sem_init(&arrived, 0, 0);
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGXFSZ}) {
        sigaction(number, &action, nullptr);
    }
}

Request Wait() {
    while (sem_wait(&arrived) != 0) {
    }
    return stop_requested != 0 ? Request::kStop : Request::kReopen;
}

}  // namespace Signals
