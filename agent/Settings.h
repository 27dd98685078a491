#pragma once

#include <Poco/Util/OptionSet.h>

#include <map>
#include <set>
#include <string>

// What the agent and its commands can be told, on the command line and in its configuration file. A
// value is checked when it is taken, and a path is made absolute then: a daemon's working directory
// changes later. Main thread only.
class Settings {
public:
    // Every option that `taker` takes, the name of a command or "agent"; whoever processes them
    // calls SetOption with each.
    static void DefineOptions(const std::string& taker, Poco::Util::OptionSet& options);

    // Takes an option by its full name. Throws StartError, EX_USAGE, for a bad value.
    void SetOption(const std::string& option, const std::string& value);

    // Takes the configuration file: that of --config, otherwise `otherwise` if there is one. Each
    // line is KEY = VALUE, a comment (# or !) or blank; what an option has set stays. A key whose
    // first word, up to a dot, is none of the agent's may be a module's. Throws StartError:
    // EX_NOPERM for a file that others may have written, EX_CONFIG for one that cannot be read, and
    // for any other line, an unknown or repeated key and a bad value, with the line's number.
    void ReadFile(const std::string& otherwise);
    // Throws StartError, EX_CONFIG, when the file has a key that is not of `keys`, but has its
    // first word in common with one. Returns the places and names of the others that nobody takes:
    // those of a module that is not there.
    std::vector<std::string> ExpectOnly(const std::set<std::string>& keys) const;
    // Everything that has a value and is a key of the configuration file, modules' keys included.
    std::map<std::string, std::string> ByKey() const;

    // By key, for an option without one by its name. The default when it was not set.
    bool IsSet(const std::string& name) const { return values_.count(name) != 0; }
    std::string Get(const std::string& name) const;

private:
    struct ModuleSetting {
        std::string value;
        std::string place;  // in the file, for a message
    };

    std::map<std::string, std::string> values_;             // those set
    std::map<std::string, ModuleSetting> module_settings_;  // by key
};
