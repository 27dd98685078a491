#include <sysexits.h>
#include <unistd.h>

#include <iostream>

#include "agent/Commands.h"
#include "agent/Describe.h"
#include "agent/Settings.h"
#include "agent/StartError.h"
#include "agent/StatusFile.h"
#include "agent/Watchpost.h"

namespace {

bool Confirmed() {
    std::cout << "Go ahead? [y/N] " << std::flush;
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "yes");
}

}  // namespace

int Commands::Restore(Watchpost& engine, const Settings& settings,
                      const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        throw StartError{EX_USAGE, "unexpected argument " + arguments.front()};
    }
    if (IsAlive(ReadStatusFile(settings.Get("status.file")))) {
        throw StartError{EX_TEMPFAIL, "an agent runs: stop it first"};
    }
    // Held to the end: no agent starts meanwhile. Without a log directory none can.
    SDK::Descriptor lock;
    if (access(settings.Get("log.dir").c_str(), F_OK) == 0) {
        engine.LockDirectory(lock);
    }
    engine.LoadModules(engine.TrustedDirectory("module.dir"));
    std::string plan;
    for (auto& module : engine.Modules()) {
        plan += Describe::ToText(module->Restore(true), true);
    }
    if (plan.empty()) {
        std::cout << "Nothing of watchpost's is in the configuration of this host.\n";
    } else {
        std::cout << plan;
        if (!settings.IsSet("yes") && !isatty(STDIN_FILENO)) {
            throw StartError{EX_USAGE, "nothing is done without --yes when nobody can be asked"};
        }
        if (!settings.IsSet("yes") && !Confirmed()) {
            std::cout << "Nothing was done.\n";
            engine.StopModules();
            return EXIT_FAILURE;
        }
        for (auto& module : engine.Modules()) {
            module->Restore(false);
        }
        std::cout << "Done. A policy that forwards does so again when the agent starts.\n";
    }
    engine.StopModules();
    return EXIT_SUCCESS;
}
