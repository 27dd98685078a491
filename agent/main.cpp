#include "agent/Watchpost.h"

int main(int argc, char** argv) {
    Watchpost agent;
    return agent.run(argc, argv);
}
