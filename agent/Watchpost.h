#pragma once

#include <Poco/Util/OptionSet.h>

#include <string>
#include <vector>

#include "framework/Engine.h"

// The agent: options, configuration file, and the order in which its pieces start and stop.
class Watchpost : public Framework::Engine {
public:
    Watchpost();

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void initialize(Poco::Util::Application& self) override;
    int main(const std::vector<std::string>& arguments) override;

private:
    // A mistake of whoever started the agent: one line for standard error and an exit status.
    struct StartError {
        int status;
        std::string text;
    };

    void OnHelp(const std::string& name, const std::string& value);
    void OnVersion(const std::string& name, const std::string& value);
    void LoadConfiguration(const std::string& path);
    // Keeps a second agent away from the log and the reports of this one.
    void LockDirectory();
    void OpenLog();
    void LimitCpu();
    std::string Directory(const std::string& key, const std::string& otherwise);
    int Serve();

    std::string answer_;  // what --help or --version prints instead of running
};
