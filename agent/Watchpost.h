#pragma once

#include <Poco/Util/OptionSet.h>

#include <functional>
#include <string>
#include <vector>

#include "agent/Settings.h"
#include "framework/Engine.h"
#include "sdk/Descriptor.h"

struct Command;

// The application: the agent, whose pieces it starts and stops in their order, or one command.
class Watchpost : public Framework::Engine {
public:
    // The policy type under which documents are delivered.
    static constexpr const char* kPolicyType = "10001";

    Watchpost();

    // The whole life of the agent or the command, which ends with its exit status. `arguments`: the
    // command line, the program first. A start that fails is one line on standard error.
    int Launch(const std::vector<std::string>& arguments);

    // The directory of that key. Throws StartError when it is none, or others may write it.
    std::string TrustedDirectory(const std::string& key) const;
    // Keeps agents away from the log directory, and so from this host, as long as `lock` lives.
    // Throws StartError when one is there.
    void LockDirectory(SDK::Descriptor& lock) const;

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& arguments) override;

private:
    // Runs `step` for its exit status, which is that of the fault when it throws.
    int Told(const std::function<int()>& step) const;
    int Tell(int status, std::string text) const;
    std::string Help() const;
    std::string Directory(const std::string& key) const;
    void OpenLog() const;
    int Serve();
    int RunCommand(const std::vector<std::string>& arguments);
    int RunModuleCommand();
    // Gives modules the settings.
    void ShareSettings();
    std::vector<std::string> ExpectKeysOfModules();

    const Command* command_ = nullptr;  // null for the agent
    std::string module_command_;        // the name of a module's command
    std::vector<std::string> module_arguments_;
    Settings settings_;
};
