#pragma once

#include <string>
#include <vector>

class Settings;
class Watchpost;

// What the program does when its first argument names a command. Modules are not loaded yet, the
// configuration file is read, and what loggers are told goes nowhere. `arguments` are those that
// are no options. Returns the exit status; what is thrown ends the program as a start that fails
// does.
namespace Commands {

int Check(Watchpost& engine, const Settings& settings, const std::vector<std::string>& arguments);
int Restore(Watchpost& engine, const Settings& settings, const std::vector<std::string>& arguments);
int Status(Watchpost& engine, const Settings& settings, const std::vector<std::string>& arguments);

}  // namespace Commands
