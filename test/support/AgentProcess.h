#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "test/support/TestSupport.h"

namespace TestSupport {

// How often `text` holds `piece`.
inline int Occurrences(const std::string& text, const std::string& piece) {
    int count = 0;
    for (std::size_t at = text.find(piece); at != std::string::npos;
         at = text.find(piece, at + 1)) {
        ++count;
    }
    return count;
}

// The watchpost executable at work, with the directories of an installation in /usr/local/watchpost
// and the modules of this build. Policy files go through Policy().
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

    // Puts a policy file in place the way writers should.
    static void Policy(const std::string& name, const std::string& text) {
        WriteText(Path("policy/" + name + ".new"), text);
        std::filesystem::rename(Path("policy/" + name + ".new"), Path("policy/" + name));
    }

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
    // How often the log holds `piece`.
    static int Logged(const std::string& piece) {
        return Occurrences(ReadText(Path("log/watchpost.log")), piece);
    }
    static bool AwaitLog(const std::string& piece, int times = 1) {
        return Await([&] { return Logged(piece) >= times; });
    }

private:
    pid_t pid_ = -1;
};

}  // namespace TestSupport
