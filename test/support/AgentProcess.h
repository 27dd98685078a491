#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "test/support/TestSupport.h"

namespace TestSupport {

// The watchpost executable at work, with the directories of an installation in /usr/local/watchpost
// and the modules of this build.
class AgentProcess {
public:
    AgentProcess() {
        const std::filesystem::path build =
            std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
        for (const char* directory : {"policy", "log", "conf", "module"}) {
            std::filesystem::create_directories(Path(directory));
        }
        // As root would install them; the build may belong to somebody else.
        std::system(("cp " + (build / "module").string() + "/*.so " + Path("module")).c_str());
        const std::string program = (build / "bin/watchpost").string();
        pid_ = fork();
        if (pid_ == 0) {
            execl(program.c_str(), "watchpost", "--log-level=trace", nullptr);
            _exit(127);
        }
    }
    ~AgentProcess() {
        Stop(SIGKILL);
        for (const char* directory : {"policy", "log", "conf"}) {
            std::error_code mounted;
            std::filesystem::remove_all(Path(directory), mounted);
        }
    }

    static std::string Path(const std::string& name) { return "/usr/local/watchpost/" + name; }

    // Sends the signal and waits for the end; the exit status, or minus the signal that ended it.
    int Stop(int signal = SIGTERM) {
        int status = 0;
        if (pid_ > 0) {
            kill(pid_, signal);
            waitpid(pid_, &status, 0);
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    static bool Logged(const std::string& piece) {
        return ReadText(Path("log/watchpost.log")).find(piece) != std::string::npos;
    }
    static bool AwaitLog(const std::string& piece) {
        return Await([&] { return Logged(piece); });
    }

private:
    pid_t pid_ = -1;
};

}  // namespace TestSupport
