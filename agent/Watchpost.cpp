#include "agent/Watchpost.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionCallback.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "agent/Daemon.h"
#include "agent/PolicyDirectory.h"
#include "agent/ReportTask.h"
#include "agent/Signals.h"
#include "framework/Log.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"

namespace {

const char* const kHome = "/usr/local/watchpost";
// The policy type under which the documents of the policy directory are delivered.
const char* const kPolicyType = "10001";

// Ends what runs, also when the start fails half-way: modules with their tasks, and last the
// report task, which writes what is still queued. The policy directory is gone by then.
struct StopAtExit {
    Framework::Engine& engine;

    ~StopAtExit() {
        engine.StopModules();
        engine.StopTask(ReportTask::kName);
        Framework::Log().information("watchpost has stopped");
    }
};

}  // namespace

Watchpost::Watchpost() {
    // Log and reports hold what users typed.
    umask(027);
    setUnixOptions(true);
}

void Watchpost::defineOptions(Poco::Util::OptionSet& options) {
    using Poco::Util::Option;
    ServerApplication::defineOptions(options);
    const auto bound = [&options](const char* name, const char* argument, const char* key,
                                  const char* description) {
        options.addOption(Option(name, "", description).argument(argument).binding(key));
    };
    bound("config", "FILE", "config.file", "configuration file, properties format");
    bound("module-dir", "DIR", "module.dir", "directory of the modules, *.so");
    bound("policy-dir", "DIR", "policy.dir", "directory of the policy files, *.json");
    bound("log-dir", "DIR", "log.dir", "directory of the log and of local records");
    bound("report", "FILE", "report.file", "report file, default LOGDIR/watchpost_report.jsonl");
    bound("log-level", "LEVEL", "log.level", "error, warning, notice, information, debug or trace");
    options.addOption(
        Option("version", "", "print the version")
            .callback(Poco::Util::OptionCallback<Watchpost>(this, &Watchpost::OnVersion)));
    options.addOption(
        Option("help", "", "print this help")
            .callback(Poco::Util::OptionCallback<Watchpost>(this, &Watchpost::OnHelp)));
}

void Watchpost::OnHelp(const std::string& /*name*/, const std::string& /*value*/) {
    Poco::Util::HelpFormatter formatter(options());
    formatter.setUnixStyle(true);
    formatter.setCommand("watchpost");
    formatter.setUsage("[OPTION]...");
    formatter.setHeader("Host-security agent. Defaults are below " + std::string(kHome) + ".");
    std::ostringstream text;
    formatter.format(text);
    answer_ = text.str();
    stopOptionsProcessing();
}

void Watchpost::OnVersion(const std::string& /*name*/, const std::string& /*value*/) {
    answer_ = "watchpost " WATCHPOST_VERSION "\n";
    stopOptionsProcessing();
}

void Watchpost::initialize(Poco::Util::Application& self) {
    ServerApplication::initialize(self);
    // A daemon's working directory will be "/": paths given relative to the caller's directory are
    // resolved while it still holds.
    for (const char* const key :
         {"config.file", "module.dir", "policy.dir", "log.dir", "report.file"}) {
        if (!config().getString(key, "").empty()) {
            config().setString(key, std::filesystem::absolute(config().getString(key)).string());
        }
    }
}

int Watchpost::main(const std::vector<std::string>& arguments) {
    if (!answer_.empty()) {
        std::cout << answer_ << std::flush;
        return EXIT_OK;
    }
    try {
        if (!arguments.empty()) {
            throw StartError{EXIT_USAGE, "unexpected argument " + arguments.front()};
        }
        return Serve();
    } catch (const StartError& e) {
        std::cerr << "watchpost: " << e.text << std::endl;
        return e.status;
    } catch (const Poco::Exception& e) {
        std::cerr << "watchpost: " << e.displayText() << std::endl;
        return EXIT_SOFTWARE;
    }
}

void Watchpost::LoadConfiguration(const std::string& path) {
    const bool named = config().hasProperty("config.file");
    const std::string file = config().getString("config.file", path);
    struct stat status = {};
    const int error = stat(file.c_str(), &status) == 0 ? 0 : errno;
    if (error == ENOENT && !named) {
        return;
    }
    try {
        if (error != 0 || !S_ISREG(status.st_mode)) {
            throw Poco::OpenFileException(error != 0 ? std::strerror(error) : "not a regular file");
        }
        // Not loadConfiguration, which goes by the extension of the name.
        Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> properties(
            new Poco::Util::PropertyFileConfiguration(file));
        config().add(properties, PRIO_DEFAULT);
    } catch (const Poco::Exception& e) {
        throw StartError{EXIT_CONFIG, "configuration file " + file + ": " + e.displayText()};
    }
}

std::string Watchpost::Directory(const std::string& key, const std::string& otherwise) {
    std::string path = config().getString(key, otherwise);
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        throw StartError{EXIT_OSFILE, key + " " + path + ": " + std::strerror(errno)};
    }
    if (!S_ISDIR(status.st_mode)) {
        throw StartError{EXIT_OSFILE, key + " " + path + ": " + std::strerror(ENOTDIR)};
    }
    return path;
}

void Watchpost::LockDirectory() {
    const std::string directory = Directory("log.dir", std::string(kHome) + "/log");
    // Open, and so locked, until the process ends.
    const int lock = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0) {
        throw StartError{EXIT_TEMPFAIL,
                         "log.dir " + directory +
                             (errno == EWOULDBLOCK ? ": another watchpost runs with it"
                                                   : std::string(": ") + std::strerror(errno))};
    }
}

void Watchpost::OpenLog() {
    const std::string directory = Directory("log.dir", std::string(kHome) + "/log");
    try {
        SDK::LoggerUtils::GetInstance()->Open(directory,
                                              config().getString("log.level", "information"));
    } catch (const Poco::InvalidArgumentException& e) {
        throw StartError{EXIT_USAGE, "log.level: " + e.displayText()};
    } catch (const Poco::Exception& e) {
        throw StartError{EXIT_CANTCREAT, "log file: " + e.displayText()};
    }
}

void Watchpost::LimitCpu() {
    const std::string key = "cpu.limit.percent";
    try {
        const int percent = config().getInt(key, 0);
        if (percent >= 0 && percent <= 100) {
            SDK::InnerCpuCtrlUtils::SetLimit(percent);
            return;
        }
    } catch (const Poco::SyntaxException&) {
    }
    throw StartError{EXIT_CONFIG,
                     key + " must be a number from 0 to 100, not " + config().getString(key)};
}

int Watchpost::Serve() {
    const std::string home = kHome;
    LoadConfiguration(home + "/conf/watchpost.properties");
    const std::string module_dir = Directory("module.dir", home + "/module");
    const std::string policy_dir = Directory("policy.dir", home + "/policy");
    LockDirectory();
    OpenLog();
    LimitCpu();

    // The report task comes first and goes last: whatever is sent has a receiver.
    Poco::AutoPtr<ReportTask> report(new ReportTask(config().getString(
        "report.file", SDK::LoggerUtils::GetInstance()->GetLogPath() + "/watchpost_report.jsonl")));
    if (!report->Open()) {
        throw StartError{EXIT_CANTCREAT,
                         "report file " + report->Path() + ": " + std::strerror(errno)};
    }
    Framework::Log().information("watchpost " WATCHPOST_VERSION " starts");
    StartTask(report);
    const StopAtExit stop{*this};
    LoadModules(module_dir);
    const PolicyDirectory policies(policy_dir, [this](const auto& name, const auto& content) {
        DeliverPolicy(kPolicyType, name, content);
        EnforcePolicies();
    });
    Daemon::Started();
    while (Signals::Wait() == Signals::Request::kReopen) {
        report->Reopen();
    }
    Framework::Log().information("watchpost stops");
    RefuseTasks();
    return EXIT_OK;
}
