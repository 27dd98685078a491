#include <string>
#include <vector>

#include "agent/Daemon.h"
#include "agent/Signals.h"
#include "agent/Watchpost.h"

int main(int argc, char** argv) {
    Signals::Install();
    std::vector<std::string> arguments(argv, argv + argc);
    Daemon::Enter(arguments);
    Watchpost agent;
    return agent.run(arguments);
}
