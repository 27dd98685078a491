#pragma once

#include <string>

// Why the agent or a command does not start: an exit status as in sysexits.h, and what standard
// error says.
struct StartError {
    int status;
    std::string text;
};
