#include "module/module_rsyslog/src/RsyslogWait.h"

#include <fcntl.h>
#include <netdb.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "module/module_rsyslog/src/SyslogDaemon.h"
#include "sdk/Descriptor.h"
#include "sdk/FileUtils.h"
#include "sdk/Paths.h"

namespace Engine {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kCommandPatience{60};
constexpr std::chrono::seconds kTermPatience{1};
constexpr std::chrono::milliseconds kPause{20};

constexpr std::size_t kMaxOutput = 16384;
// Where there is a lower one already it stays.
const char* const kOutputLimit = "(ulimit -f 2048) 2>/dev/null && ulimit -f 2048; ";
constexpr std::int64_t kRestartSpan = 1000;  // hundredths of a second
constexpr std::size_t kRestartsInSpan = 3;
constexpr std::size_t kMaxRestartsText = 1000;

// Commands that a stop left running.
std::vector<pid_t> left_running;

// The last restarts, in hundredths of a second since the boot. Kept in a file too, for agents that
// follow each other; one that cannot be read or written costs only that.
std::deque<std::int64_t>& Restarts() {
    static std::deque<std::int64_t> restarts = [] {
        std::string text;
        SDK::FileUtils::ReadFile(SDK::Paths::kRestarts, text, kMaxRestartsText);
        std::istringstream numbers(text);
        std::deque<std::int64_t> read(std::istream_iterator<std::int64_t>(numbers), {});
        while (read.size() > kRestartsInSpan || (!read.empty() && read.back() > SinceBoot())) {
            read.pop_back();
        }
        return read;
    }();
    return restarts;
}

bool AwaitEnd(pid_t process, Clock::time_point end, const std::function<bool()>& stopping,
              int* status = nullptr) {
    while (waitpid(process, status, WNOHANG) == 0) {
        if (stopping() || Clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

// Without the terminal, which would stop a background process group that reads it.
// `output`: where its own goes, -1: where the agent's goes.
pid_t Start(const std::string& command, int output) {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    if (posix_spawnattr_init(&attributes) != 0) {
        return -1;
    }
    if (posix_spawn_file_actions_init(&actions) != 0) {
        posix_spawnattr_destroy(&attributes);
        return -1;
    }
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        if (output >= 0) {
            posix_spawn_file_actions_adddup2(&actions, output, stream);
        }
    }
    // The service manager listens to the agent alone, and complains of others.
    std::string text = "unset NOTIFY_SOCKET; " + command;
    char shell[] = "sh";
    char option[] = "-c";
    char* const arguments[] = {shell, option, text.data(), nullptr};
    pid_t process = -1;
    const int error = posix_spawn(&process, "/bin/sh", &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error == 0 ? process : -1;
}

// Ends a command and what it has started.
void End(pid_t process) {
    kill(-process, SIGTERM);
    if (!AwaitEnd(process, Clock::now() + kTermPatience, [] { return false; })) {
        kill(-process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
}

std::string ReadAll(int file) {
    std::string text(kMaxOutput, '\0');
    const ssize_t length = pread(file, text.data(), text.size(), 0);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
}

// As gethostbyname, from any thread.
std::optional<in_addr> LookUp(const std::string& host) {
    std::vector<char> buffer(1024);
    hostent entry = {};
    hostent* found = nullptr;
    int why = 0;
    while (gethostbyname_r(host.c_str(), &entry, buffer.data(), buffer.size(), &found, &why) ==
           ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    if (found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) {
        return std::nullopt;
    }
    in_addr address = {};
    std::memcpy(&address, found->h_addr_list[0], sizeof(address));
    return address;
}

std::optional<bool> IsKnown(const std::string& host) {
    addrinfo* found = nullptr;
    const int error = getaddrinfo(host.c_str(), nullptr, nullptr, &found);
    if (error != 0) {
        return std::nullopt;
    }
    freeaddrinfo(found);
    return true;
}

// Name servers that keep silent hold the resolver for minutes, and nothing ends its wait: a thread
// of its own does the waiting for `work`, and is left behind at a stop.
template <typename Work, typename Answer>
Outcome Detached(Work work, Answer& out, const std::function<bool()>& stopping) {
    std::packaged_task<std::optional<Answer>()> task(std::move(work));
    std::future<std::optional<Answer>> answer = task.get_future();
    try {
        std::thread(std::move(task)).detach();
    } catch (const std::system_error&) {
        return Outcome::kFailed;
    }
    while (answer.wait_for(kPause) != std::future_status::ready) {
        if (stopping()) {
            return Outcome::kStopped;
        }
    }
    const std::optional<Answer> found = answer.get();
    if (!found) {
        return Outcome::kFailed;
    }
    out = *found;
    return Outcome::kDone;
}

Outcome Run(const std::string& command, const std::function<bool()>& stopping, int output,
            int& exit_status) {
    // Two at once could restart the same daemon. All together have a minute.
    const auto end = Clock::now() + kCommandPatience;
    for (const pid_t process : std::exchange(left_running, {})) {
        if (!AwaitEnd(process, end, stopping)) {
            stopping() ? left_running.push_back(process) : End(process);
        } else {
            NoteRestart();
        }
    }
    if (!left_running.empty()) {
        return Outcome::kStopped;
    }
    const pid_t process = Start(command, output);
    if (process < 0) {
        return Outcome::kFailed;
    }
    int status = 0;
    if (AwaitEnd(process, Clock::now() + kCommandPatience, stopping, &status)) {
        exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return Outcome::kDone;
    }
    if (stopping() && output < 0) {
        // Not killed: half a restart would leave the host without its daemon.
        left_running.push_back(process);
        return Outcome::kStopped;
    }
    End(process);
    return stopping() ? Outcome::kStopped : Outcome::kFailed;
}

}  // namespace

Outcome RunCommand(const std::string& command, const std::function<bool()>& stopping, int& status) {
    return Run(command, stopping, -1, status);
}

Outcome RunCommand(const std::string& command, const std::function<bool()>& stopping, int& status,
                   std::string& output) {
    SDK::Descriptor file;
    if (file.Reset(memfd_create("output", MFD_CLOEXEC)) != 0) {
        return Outcome::kFailed;
    }
    const Outcome outcome = Run(kOutputLimit + command, stopping, file.Get(), status);
    output = outcome == Outcome::kDone ? ReadAll(file.Get()) : "";
    return outcome;
}

bool AwaitRestartTurn(const std::function<bool()>& stopping) {
    const auto& restarts = Restarts();
    while (restarts.size() >= kRestartsInSpan && SinceBoot() - restarts.front() <= kRestartSpan) {
        if (stopping()) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

void NoteRestart() {
    auto& restarts = Restarts();
    restarts.push_back(SinceBoot());
    if (restarts.size() > kRestartsInSpan) {
        restarts.pop_front();
    }
    std::string text;
    for (const std::int64_t restart : restarts) {
        text += std::to_string(restart) + "\n";
    }
    SDK::FileUtils::WriteFile(SDK::Paths::kRestarts, text, false);
}

Outcome LookUpHost(const std::string& host, in_addr& out, const std::function<bool()>& stopping) {
    return Detached([host] { return LookUp(host); }, out, stopping);
}

Outcome LookUpHost(const std::string& host, const std::function<bool()>& stopping) {
    bool known = false;
    return Detached([host] { return IsKnown(host); }, known, stopping);
}

}  // namespace Engine
