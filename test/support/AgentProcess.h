#pragma once

#include <json/reader.h>
#include <json/value.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "test/support/TestSupport.h"

namespace TestSupport {

// The watchpost executable at work, with the directories of an installation in /usr/local/watchpost
// and the modules of this build. Policy files go through Policy().
class AgentProcess {
public:
    static constexpr const char* kHome = "/usr/local/watchpost";

    explicit AgentProcess(const std::string& log_level = "trace") {
        const std::filesystem::path build =
            std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
        for (const char* directory : {"policy", "log", "conf"}) {
            std::filesystem::create_directories(Path(directory));
        }
        const std::string module_dir = "--module-dir=" + (build / "module").string();
        const std::string level = "--log-level=" + log_level;
        const std::string program = (build / "bin/watchpost").string();
        pid_ = fork();
        if (pid_ == 0) {
            execl(program.c_str(), "watchpost", module_dir.c_str(), level.c_str(), nullptr);
            _exit(127);
        }
    }
    ~AgentProcess() {
        if (pid_ > 0) {
            Stop(SIGKILL);
        }
        for (const char* directory : {"policy", "log", "conf"}) {
            std::filesystem::remove_all(Path(directory));
        }
    }
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    static std::string Path(const std::string& name) { return std::string(kHome) + "/" + name; }

    // Puts a policy file in place the way writers should.
    static void Policy(const std::string& name, const std::string& text) {
        WriteText(Path("policy/" + name + ".new"), text);
        std::filesystem::rename(Path("policy/" + name + ".new"), Path("policy/" + name));
    }

    // Sends the signal and waits for the end; the exit status, or minus the signal that ended it.
    int Stop(int signal = SIGTERM) {
        int status = 0;
        kill(pid_, signal);
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    bool Runs() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }
    void Signal(int signal) const { kill(pid_, signal); }

    static std::string Log() { return ReadText(Path("log/watchpost.log")); }
    // How often the log holds `piece`.
    static int Logged(const std::string& piece) {
        const std::string log = Log();
        int count = 0;
        for (std::size_t at = log.find(piece); at != std::string::npos;
             at = log.find(piece, at + 1)) {
            ++count;
        }
        return count;
    }
    static bool AwaitLog(const std::string& piece, int times = 1) {
        return Await([&] { return Logged(piece) >= times; });
    }

    // The report file's lines, each parsed; throws when one is not JSON.
    static std::vector<Json::Value> Reports() {
        std::istringstream lines(ReadText(Path("log/watchpost_report.jsonl")));
        std::vector<Json::Value> reports;
        for (std::string line; std::getline(lines, line);) {
            std::istringstream text(line);
            Json::Value report;
            text >> report;
            reports.push_back(report);
        }
        return reports;
    }

private:
    pid_t pid_ = -1;
};

}  // namespace TestSupport
