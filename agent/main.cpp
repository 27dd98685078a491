#include <string>
#include <vector>

#include "agent/Signals.h"
#include "agent/Watchpost.h"

int main(int argc, char** argv) {
    Signals::Install();
    Watchpost agent;
    return agent.Launch(std::vector<std::string>(argv, argv + argc));
}
