#pragma once

#include <Poco/Util/OptionSet.h>

#include <string>
#include <vector>

#include "agent/Settings.h"
#include "framework/Engine.h"

// The agent: the order in which its pieces start and stop.
class Watchpost : public Framework::Engine {
public:
    Watchpost();

    // The whole life of the agent, which ends with its exit status. `arguments`: the command line,
    // the program first. A start that fails is one line on standard error.
    int Launch(const std::vector<std::string>& arguments);

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& arguments) override;

private:
    std::string Help() const;
    std::string Directory(const std::string& key) const;
    // Keeps a second agent away from the log and the reports of this one.
    void LockDirectory() const;
    void OpenLog() const;
    int Serve();

    Settings settings_;
};
