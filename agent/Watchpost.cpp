#include "agent/Watchpost.h"

#include <Poco/Exception.h>
#include <Poco/NullChannel.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/OptionException.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>
#include <utility>

#include "agent/Commands.h"
#include "agent/Daemon.h"
#include "agent/MetricsTask.h"
#include "agent/PidFile.h"
#include "agent/PolicyDirectory.h"
#include "agent/ReportTask.h"
#include "agent/ServiceManager.h"
#include "agent/Signals.h"
#include "agent/StartError.h"
#include "agent/StatusTask.h"
#include "framework/Log.h"
#include "sdk/ErrorStream.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Paths.h"
#include "sdk/StringUtils.h"
#include "sdk/Trust.h"

// A command, under its first argument.
struct Command {
    const char* name;
    const char* usage;
    const char* description;
    int (*run)(Watchpost& engine, const Settings& settings,
               const std::vector<std::string>& arguments);
};

namespace {

const Command kCommands[] = {
    {"check", "[OPTION]... FILE...",
     "Tells what is wrong with policy files, and what they would do. "
     "Exit status 0: clean, 1: warnings, 2: errors.",
     Commands::Check},
    {"status", "[OPTION]...", "Tells how the running agent fares.", Commands::Status},
    {"restore", "[OPTION]...", "Takes the forwarding out of the host's configuration.",
     Commands::Restore},
};

// Ends what runs, also when the start fails half-way: modules with their tasks, then the report
// task, which writes what is still queued, and last what tells of all that. The policy directory is
// gone by then.
struct StopAtExit {
    Framework::Engine& engine;

    ~StopAtExit() {
        engine.StopModules();
        engine.StopTask(ReportTask::kName);
        engine.StopTask(MetricsTask::kName);
        engine.StopTask(StatusTask::kName);
        Framework::Log().information("watchpost has stopped");
    }
};

}  // namespace

Watchpost::Watchpost() {
    // Log and reports hold what users typed.
    umask(027);
    setUnixOptions(true);
}

int Watchpost::Tell(int status, std::string text) const {
    if (status == EXIT_USAGE) {
        const std::string command = command_ != nullptr ? command_->name : module_command_;
        text += "; see watchpost " + command + (command.empty() ? "" : " ") + "--help";
    }
    std::cerr << "watchpost: " << SDK::StringUtils::ToPrintable(text) << std::endl;
    return status;
}

int Watchpost::Told(const std::function<int()>& step) const {
    try {
        return step();
    } catch (const StartError& e) {
        return Tell(e.status, e.text);
    } catch (const Poco::Util::OptionException& e) {
        return Tell(EXIT_USAGE, e.displayText());
    } catch (const Poco::Exception& e) {
        return Tell(EXIT_OSERR, e.displayText());
    } catch (const std::exception& e) {
        return Tell(EXIT_OSERR, e.what());
    }
}

int Watchpost::Launch(const std::vector<std::string>& arguments) {
    return Told([&] {
        std::vector<std::string> rest = arguments;
        if (rest.size() > 1 && rest[1].rfind('-', 0) != 0) {
            command_ = std::find_if(std::begin(kCommands), std::end(kCommands),
                                    [&](const Command& each) { return rest[1] == each.name; });
            if (command_ == std::end(kCommands)) {
                command_ = nullptr;
                module_command_ = rest[1];
                // Of its arguments, these tell where the module is.
                const auto others =
                    std::stable_partition(rest.begin() + 2, rest.end(), [](const auto& argument) {
                        return argument.rfind("--config=", 0) == 0 ||
                               argument.rfind("--module-dir=", 0) == 0;
                    });
                module_arguments_.assign(others, rest.end());
                rest.erase(others, rest.end());
            }
            rest.erase(rest.begin() + 1);
        }
        init(rest);
        // Not run(arguments), which has options and a --daemon of its own.
        return ServerApplication::run();
    });
}

void Watchpost::defineOptions(Poco::Util::OptionSet& options) {
    // Not the base's: its --umask would open the record logs to others.
    Settings::DefineOptions(command_ != nullptr ? command_->name : "agent", options);
}

void Watchpost::handleOption(const std::string& name, const std::string& value) {
    settings_.SetOption(name, value);
    if (name == "help" || name == "version") {
        stopOptionsProcessing();
    }
}

std::string Watchpost::Help() const {
    Poco::Util::HelpFormatter formatter(options());
    formatter.setUnixStyle(true);
    formatter.setCommand(std::string("watchpost") +
                         (command_ != nullptr ? std::string(" ") + command_->name : ""));
    formatter.setUsage(command_ != nullptr ? command_->usage : "[COMMAND] [OPTION]...");
    formatter.setHeader(command_ != nullptr ? command_->description
                                            : "Host-security agent. Its configuration file is " +
                                                  std::string(SDK::Paths::kConfiguration) + ".");
    std::ostringstream text;
    formatter.format(text);
    if (command_ == nullptr) {
        text << "\nCommands, each with a --help of its own; without one, the agent runs:\n";
        for (const Command& each : kCommands) {
            text << "  " << std::left << std::setw(10) << each.name << each.description << '\n';
        }
        text << "Modules may bring others.\n";
    }
    return text.str();
}

int Watchpost::main(const std::vector<std::string>& arguments) {
    return Told([&] {
        if (settings_.IsSet("help") || settings_.IsSet("version")) {
            std::cout << (settings_.IsSet("help") ? Help() : "watchpost " WATCHPOST_VERSION "\n")
                      << std::flush;
            return static_cast<int>(EXIT_OK);
        }
        // Files are opened through it: without it none would seem to exist.
        if (access("/proc/self/fd", F_OK) != 0) {
            throw StartError{EXIT_OSFILE, "/proc is not mounted"};
        }
        if (command_ != nullptr || !module_command_.empty()) {
            return RunCommand(arguments);
        }
        if (!arguments.empty()) {
            throw StartError{EXIT_USAGE, "unexpected argument " + arguments.front()};
        }
        return Serve();
    });
}

int Watchpost::RunCommand(const std::vector<std::string>& arguments) {
    // What loggers say, those of modules included, is for the log of the agent.
    Poco::Logger::root();
    Poco::Logger::setChannel("", nullptr);
    Poco::Logger::setLevel("", 0);
    Framework::Log().setChannel(new SDK::ErrorStream(new Poco::NullChannel));
    Framework::Log().setLevel(Poco::Message::PRIO_ERROR);
    settings_.ReadFile(SDK::Paths::kConfiguration);
    Signals::OutliveFileLimit();
    const int status =
        command_ != nullptr ? command_->run(*this, settings_, arguments) : RunModuleCommand();
    if (!std::cout.flush() && errno != EPIPE) {  // a reader that has seen enough
        throw StartError{EXIT_IOERR, "standard output cannot be written"};
    }
    return status;
}

int Watchpost::RunModuleCommand() {
    ShareSettings();
    LoadModules(TrustedDirectory("module.dir"), false);
    ExpectKeysOfModules();
    for (auto& module : Modules()) {
        if (module->CommandName() == module_command_) {
            return module->RunCommand(module_arguments_);
        }
    }
    throw StartError{EXIT_USAGE, "unknown command " + std::exchange(module_command_, {})};
}

void Watchpost::ShareSettings() {
    for (const auto& [key, value] : settings_.ByKey()) {
        config().setString(key, value);
    }
}

std::vector<std::string> Watchpost::ExpectKeysOfModules() {
    std::set<std::string> keys;
    for (auto& module : Modules()) {
        const std::vector<std::string> more = module->ConfigurationKeys();
        keys.insert(more.begin(), more.end());
    }
    return settings_.ExpectOnly(keys);
}

std::string Watchpost::Directory(const std::string& key) const {
    std::string path = settings_.Get(key);
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        throw StartError{EXIT_OSFILE, key + " " + path + ": " + std::strerror(errno)};
    }
    if (!S_ISDIR(status.st_mode)) {
        throw StartError{EXIT_OSFILE, key + " " + path + ": " + std::strerror(ENOTDIR)};
    }
    return path;
}

std::string Watchpost::TrustedDirectory(const std::string& key) const {
    std::string path = Directory(key);
    if (const std::string why_not = SDK::Trust::WhyNotDirectory(path); !why_not.empty()) {
        throw StartError{EXIT_NOPERM, key + " " + path + ": " + why_not};
    }
    return path;
}

void Watchpost::LockDirectory(SDK::Descriptor& lock) const {
    const std::string directory = Directory("log.dir");
    if (lock.Reset(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) != 0 ||
        flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        throw StartError{EXIT_TEMPFAIL,
                         "log.dir " + directory +
                             (errno == EWOULDBLOCK ? ": another watchpost runs with it"
                                                   : std::string(": ") + std::strerror(errno))};
    }
}

void Watchpost::OpenLog() const {
    try {
        SDK::LoggerUtils::GetInstance()->Open(settings_.Get("log.dir"), settings_.Get("log.level"));
    } catch (const Poco::Exception& e) {
        throw StartError{EXIT_CANTCREAT, "log file: " + e.displayText()};
    }
}

int Watchpost::Serve() {
    Signals::Install();
    settings_.ReadFile(SDK::Paths::kConfiguration);
    if (settings_.IsSet("daemon")) {
        Daemon::Enter();
    }
    const std::string module_dir = TrustedDirectory("module.dir");
    const std::string policy_dir = TrustedDirectory("policy.dir");
    SDK::Descriptor lock;
    LockDirectory(lock);
    OpenLog();
    SDK::InnerCpuCtrlUtils::SetLimit(std::stoi(settings_.Get("cpu.limit.percent")));
    const PidFile pid_file(settings_.Get("pidfile"));

    // The report task comes first and goes last: whatever is sent has a receiver.
    Poco::AutoPtr<ReportTask> report(new ReportTask(
        settings_.IsSet("report.file") ? settings_.Get("report.file")
                                       : settings_.Get("log.dir") + "/watchpost_report.jsonl"));
    if (const int error = report->Open(); error != 0) {
        throw StartError{EXIT_CANTCREAT,
                         "report file " + report->Path() + ": " + std::strerror(error)};
    }
    Framework::Log().information("watchpost " WATCHPOST_VERSION " starts");
    StartTask(report);
    const StopAtExit stop{*this};
    ShareSettings();
    config().setString("report.file", report->Path());
    LoadModules(module_dir);
    // A module may be removed without a look at the file.
    for (const std::string& key : ExpectKeysOfModules()) {
        Framework::Log().warning(key + ": no module takes it");
    }
    StartTask(new StatusTask(settings_.Get("status.file"), report));
    if (settings_.IsSet("metrics.file")) {
        StartTask(new MetricsTask(settings_.Get("metrics.file"), report));
    }
    const PolicyDirectory policies(
        policy_dir,
        [this](const auto& name, const auto& content) {
            DeliverPolicy(kPolicyType, name, content);
        },
        [this, ready = false]() mutable {
            EnforcePolicies();
            if (!std::exchange(ready, true)) {
                ServiceManager::Ready();
            }
        },
        [this](const auto& name, const auto& why) {
            why.empty() ? ForgetPolicy(name) : RefusePolicy(name, "it cannot be read: " + why);
        });
    Daemon::Started();
    Signals::AwaitStop();
    Framework::Log().information("watchpost stops");
    ServiceManager::Stopping();
    RefuseTasks();
    return EXIT_OK;
}
