// The whole system: the watchpost executable with its modules, the host's real syslog daemon, and
// servers that receive.

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>

#include "test/support/AgentProcess.h"

namespace {

using TestSupport::AgentProcess;
using TestSupport::Await;
using TestSupport::Occurrences;
using TestSupport::ReadText;
using TestSupport::WriteText;

const char* const kInclude = "/etc/rsyslog.d/watchpost_rsyslog.conf";
const char* const kConf = "/etc/syslog-ng/syslog-ng.conf";

std::string Policy(const std::string& content, const std::string& more = "") {
    return R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature",)" + more +
           R"("content":)" + content + "}";
}

std::string Forwarding(const std::string& servers = R"("127.0.0.1")",
                       const std::string& files = R"("/var/log/a.log:9")",
                       const std::string& type = "udp") {
    return Policy(R"({"server_balance":false,"server_type":")" + type + R"(","server":[)" +
                  servers + R"(],"log_path":[)" + files + "]}");
}

// A remote syslog server on UDP.
class Server {
public:
    Server(const std::string& host, int port)
        : socket_(Poco::Net::SocketAddress(host, static_cast<Poco::UInt16>(port))) {}

    // Awaits lines 0 to 19 of the file, each under the priority.
    void Expect(const std::string& file, int priority) {
        std::set<std::string> seen;
        while (seen.size() < 20 && socket_.poll(Poco::Timespan(30, 0), socket_.SELECT_READ)) {
            char buffer[4096] = {};
            socket_.receiveBytes(buffer, sizeof(buffer) - 1);
            const std::string text(buffer);
            if (text.find("<" + std::to_string(priority) + ">") == 0 &&
                Occurrences(text, " of " + file) == 1) {
                seen.insert(text.substr(text.find("line ")));
            }
        }
        EXPECT_EQ(20U, seen.size()) << file;
    }

private:
    Poco::Net::DatagramSocket socket_;
};

// A syslog daemon of the host with Debian's configuration, "rsyslogd" or "syslog-ng".
class Daemon {
public:
    explicit Daemon(const std::string& name) : pid_file_("/run/" + name + ".pid") {
        const std::string command = name == "syslog-ng" ? "syslog-ng --pidfile=" + pid_file_ : name;
        EXPECT_EQ(0, std::system((command + " >/run/daemon.out 2>&1").c_str()));
        EXPECT_TRUE(Await([this] { return !ReadText(pid_file_).empty(); }));
    }
    ~Daemon() {
        const pid_t pid = std::atoi(ReadText(pid_file_).c_str());
        if (pid > 0) {
            kill(pid, SIGTERM);
            EXPECT_TRUE(Await([pid] { return kill(pid, 0) != 0; }));
        }
        std::remove(kInclude);
    }

private:
    const std::string pid_file_;
};

TEST(EndToEnd, TwoFilesReachTwoServersAndOthersUnderTheNextPolicy) {
    const std::string administrators = ReadText(kConf);
    const struct {
        const char *daemon, *restarted;
        int priorities[2];           // local1 and local2, debug; of lines without any: user, notice
        const char *config, *check;  // the file with the rules, and a command that judges it
    } cases[] = {
        // Of the include file, rsyslogd says that the state-file parameter is deprecated.
        {"rsyslogd",
         "run cmd: service rsyslog restart",
         {143, 151},
         kInclude,
         "! rsyslogd -N1 2>&1 | grep -v 'statefile. deprecated but accepted\\|validation run'"},
        {"syslog-ng",
         "run cmd: rcapparmor restart & service syslog restart",
         {13, 13},
         kConf,
         "syslog-ng -s"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.daemon);
        const Daemon daemon(c.daemon);
        Server servers[] = {
            {"127.0.0.1", 5514}, {"127.0.0.2", 5514}, {"127.0.0.1", 5515}, {"127.0.0.2", 5515}};
        AgentProcess agent;
        for (const int round : {1, 2}) {
            const std::string stem = std::string("/var/log/") + c.daemon + std::to_string(round);
            const std::string files[] = {stem + ".first", stem + ".second"};
            WriteText(files[0], "");
            WriteText(files[1], "");
            AgentProcess::Policy(
                "p.json", Forwarding(R"("127.0.0.1","127.0.0.2")",
                                     '"' + files[0] + R"(:5514",")" + files[1] + R"(:5515")"));
            ASSERT_TRUE(AgentProcess::AwaitLog(c.restarted, round));
            for (const auto& file : files) {
                std::ofstream log(file, std::ios::app);
                for (int i = 0; i < 20; ++i) {
                    log << "line " << i << " of " << file << std::endl;
                }
            }
            for (int i = 0; i < 4; ++i) {
                servers[i].Expect(files[i / 2], c.priorities[i / 2]);
            }
            EXPECT_EQ(1, Occurrences(ReadText(c.config), stem + ".first"));
            EXPECT_EQ(1, Occurrences(ReadText(c.config), ".second"));
            EXPECT_EQ(0, std::system(c.check));
        }
        EXPECT_EQ(0, agent.Stop());
        EXPECT_EQ(0, access(c.config, F_OK));
    }
    EXPECT_EQ(0U, ReadText(kConf).find(administrators + "######WATCHPOST"));
    // The parser took the real profile with the block both times.
    EXPECT_EQ("restart 0\nrestart 0\n", ReadText("/run/rcapparmor.log"));
    EXPECT_EQ("rsyslog restart\nrsyslog restart\nsyslog restart\nsyslog restart\n",
              ReadText("/run/service.log"));
}

// The manager of services gives up on a daemon after five starts in ten seconds, whoever asks.
TEST(EndToEnd, TwentyPoliciesInTenSecondsLeaveTheDaemonRunningUnderTheLast) {
    std::remove("/run/service.starts.rsyslog");
    const Daemon rsyslogd("rsyslogd");
    std::optional<AgentProcess> agent(std::in_place);
    const auto start = std::chrono::steady_clock::now();
    const int kPolicies = 20;
    std::string server;
    for (int i = 1; i <= kPolicies; ++i) {
        server = "127.0.1." + std::to_string(i);
        AgentProcess::Policy("p.json", Forwarding('"' + server + '"'));
        std::this_thread::sleep_until(start + i * std::chrono::milliseconds(500));
        if (i % 6 == 0) {
            EXPECT_EQ(0, agent->Stop());
            agent.emplace();
        }
    }
    EXPECT_TRUE(AgentProcess::AwaitLog("rsyslog is to forward /var/log/a.log to " + server + ":9"));
    EXPECT_EQ(1, Occurrences(ReadText(kInclude), "local1.* @" + server + ":9\n"));
    std::istringstream text(ReadText("/run/service.starts.rsyslog"));
    const std::vector<std::int64_t> starts(std::istream_iterator<std::int64_t>(text), {});
    EXPECT_LE(4U, starts.size());
    for (std::size_t i = 3; i < starts.size(); ++i) {
        EXPECT_LT(10'000'000, starts[i] - starts[i - 3]);  // microseconds
    }
    EXPECT_EQ(0, agent->Stop());
}

// The exit status of the program, whose output goes to /run/out.
int Watchpost(const std::string& arguments) {
    const std::string program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "watchpost";
    return WEXITSTATUS(
        std::system((program + " " + arguments + " </dev/null >/run/out 2>&1").c_str()));
}

TEST(EndToEnd, StatusTellsTheHealthyFromTheWrongFromTheDead) {
    const auto becomes = [](int status, const std::string& piece) {
        EXPECT_TRUE(Await([&] {
            return Watchpost("status") == status && Occurrences(ReadText("/run/out"), piece) == 1;
        })) << ReadText("/run/out");
    };
    becomes(3, "there is no status file /run/watchpost/status.json");
    {
        AgentProcess agent;
        AgentProcess::Policy("p.json", Policy("{}"));
        becomes(1, "1 written: 1 rsyslog_3; none waits");
        ASSERT_EQ(0, std::system("cp /bin/sleep /run/rsyslogd && setpriv --reuid 1000 "
                                 "--clear-groups /run/rsyslogd 1000 >/dev/null 2>&1 & sleep 0.2"));
        AgentProcess::Policy("p.json", Policy(R"({"check_period_s":9})"));
        becomes(1, "BAD   rsyslog: does not run");
        ASSERT_EQ(0, std::system("pkill -x rsyslogd"));
        const Daemon rsyslogd("rsyslogd");
        AgentProcess::Policy("p.json", Forwarding());
        becomes(0, " and holds the configuration that the agent has written");
        becomes(0, "p.json: rsyslog_feature of rsyslog_module");
        becomes(0, "rsyslog_task     every 10 s, last cycle");
        AgentProcess::Policy("b\x1b[2J.json", "{");
        becomes(1, "- policy b\\x1B[2J.json refused: ");
        EXPECT_EQ(1, Watchpost("status --json"));
        EXPECT_EQ(1, Occurrences(ReadText("/run/out"), R"("state":"wrong")"));
        AgentProcess::Policy("b\x1b[2J.json", Policy("{}", R"("enable":false,)"));
        becomes(0, ", switched off, ");
        AgentProcess::Policy("c.json", std::string(2 << 20, ' '));
        becomes(1, "- policy c.json refused: it cannot be read: File too large");
        std::filesystem::remove(AgentProcess::Path("policy/c.json"));
        becomes(0, "healthy");
        EXPECT_EQ(0, agent.Stop());
        becomes(3, "no status file");
    }
    AgentProcess agent;
    becomes(0, "policies    none");
    agent.Stop(SIGKILL);
    becomes(3, "ended without a stop");
    WriteText("/run/conf", "status.file = /run");
    EXPECT_EQ(4, Watchpost("status --config=/run/conf"));
}

// One finds fault with another's rule and goes on, the other ends over two files for one server.
TEST(EndToEnd, ADaemonThatSuffersIsAnErrorLineWithItsOwnWords) {
    const struct {
        const char *daemon, *line, *words;
    } cases[] = {
        {"rsyslogd", "rsyslog finds fault with its configuration; rsyslogd -N1 says: rsyslogd: ",
         "unknown priority name"},
        {"syslog-ng",
         "syslog-ng does not run after its restart; it finds no fault with its configuration, see",
         ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.daemon);
        const std::string conf = ReadText(kConf);
        const Daemon daemon(c.daemon);
        WriteText("/etc/rsyslog.d/zz.conf", "local1.x @x y\n");
        AgentProcess agent;
        AgentProcess::Policy(
            "p.json", Forwarding(R"("127.0.0.1")", R"("/var/log/a.log:9","/var/log/b.log:9")"));
        EXPECT_TRUE(AgentProcess::AwaitLog(c.line));
        EXPECT_LE(1, AgentProcess::Logged(c.words));
        std::remove("/etc/rsyslog.d/zz.conf");
        EXPECT_TRUE(Await([] { return Watchpost("status") == 1; })) << ReadText("/run/out");
        EXPECT_EQ(0, agent.Stop());
        WriteText(kConf, conf);
    }
}

// Checked and previewed, applied, taken back: the configuration of the host changes just where it
// is told to, and is in the end what it was.
TEST(EndToEnd, CheckChangesNothingAndRestoreTakesAllBack) {
    const auto etc_is_as_kept = [] {
        return std::system("diff -r --no-dereference /run/etc /etc >/run/diff") == 0;
    };
    const auto shown = [](const std::string& piece) {
        return Occurrences(ReadText("/run/out"), piece);
    };
    AgentProcess().Stop();  // installs
    ASSERT_EQ(0, Watchpost("restore --yes")) << "what other tests have left";
    ASSERT_EQ(0, std::system("cp -a /etc /run/etc"));
    WriteText("/var/log/a.log", "");
    WriteText("/run/p.json", Forwarding());
    WriteText("/run/bad.json", Policy(R"({"up_history":true})"));
    for (const char* name : {"rsyslogd", "syslog-ng"}) {
        SCOPED_TRACE(name);
        const Daemon daemon(name);
        {
            AgentProcess agent;
            EXPECT_EQ(0, Watchpost("check --host /run/p.json"));
            EXPECT_TRUE(shown("    +++ /etc/") && shown("/var/log/a.log") &&
                        shown("  would run service ") && shown(" accepts that\n"))
                << ReadText("/run/out");
            EXPECT_EQ(1, Watchpost("check /run/p.json /run/bad.json"));
            EXPECT_EQ(2, Watchpost("check /run/bad.json /run/none.json /run/p.json"));
            EXPECT_EQ(1, Watchpost("check --json /run/bad.json"));
            EXPECT_EQ(1, shown(R"("key":"content.up_history")"));
            EXPECT_TRUE(etc_is_as_kept()) << ReadText("/run/diff");
            ASSERT_EQ(0, mkfifo("/etc/rsyslog.d/a", 0600));
            WriteText("/etc/rsyslog.d/b.conf", "local1.x @x y\n");
            EXPECT_EQ(name[0] == 'r' ? 2 : 0, Watchpost("check --host /run/p.json"));
            EXPECT_EQ(0, std::system("rm /etc/rsyslog.d/a /etc/rsyslog.d/b.conf"));
            AgentProcess::Policy("p.json", Forwarding());
            EXPECT_TRUE(AgentProcess::AwaitLog(" is to forward "));
            EXPECT_EQ(75, Watchpost("restore --yes")) << "while an agent runs";
            EXPECT_EQ(0, agent.Stop());
        }
        EXPECT_EQ(64, Watchpost("restore")) << "nobody to ask";
        EXPECT_FALSE(etc_is_as_kept());
        std::remove("/run/service.log");
        EXPECT_EQ(0, Watchpost("restore --yes")) << ReadText("/run/out");
        EXPECT_TRUE(etc_is_as_kept()) << ReadText("/run/diff");
        EXPECT_EQ(1, Occurrences(ReadText("/run/service.log"), "restart\n"));
        EXPECT_EQ(0, Watchpost("restore"));
        EXPECT_EQ(1, shown("Nothing of watchpost's is in the configuration of this host.\n"));
    }
    const std::string conf = ReadText(kConf);
    WriteText(kConf, conf +
                         "######WATCHPOST SYSLOGNG CONFIG BEGIN######\r\nx\r\n"
                         "######WATCHPOST SYSLOGNG CONFIG END######\r\n");
    EXPECT_EQ(71, Watchpost("restore"));
    WriteText(kConf, conf);
}

// A restart that never ends, name servers that never answer, and servers behind an interface where
// nobody answers: a probe of each takes three seconds.
TEST(EndToEnd, AStopWaitsForNoCommandNoNameAndOneProbeAtMost) {
    const Daemon rsyslogd("rsyslogd");
    const Server silent("127.0.0.9", 53);
    WriteText("/etc/resolv.conf", "nameserver 127.0.0.9\n");
    std::filesystem::create_directories("/run/bin");
    WriteText("/run/bin/service", "#!/bin/sh\nexec sleep 1000\n");
    std::filesystem::permissions("/run/bin/service", std::filesystem::perms::owner_all);
    const std::string path = std::getenv("PATH");
    setenv("PATH", ("/run/bin:" + path).c_str(), 1);
    ASSERT_EQ(0,
              std::system("ip link add silent0 type bridge && ip addr add 10.0.0.5/24 dev silent0 "
                          "&& ip link set silent0 up && for i in 6 7 8; do ip neigh add "
                          "10.0.0.$i lladdr 02:00:00:00:00:09 dev silent0; done"));
    const struct {
        const char *type, *servers, *logged;
        int signal, probes;
    } cases[] = {{"udp", R"("127.0.0.1")", "all msg", SIGINT, 0},
                 {"tcp", R"("a.b.c")", "check path", SIGTERM, 0},
                 {"tcp", R"("10.0.0.6","10.0.0.7","10.0.0.8")", "check path", SIGTERM, 1}};
    for (const auto& c : cases) {
        AgentProcess agent;
        AgentProcess::Policy("p.json", Forwarding(c.servers, R"("/var/log/a.log:9")", c.type));
        EXPECT_TRUE(AgentProcess::AwaitLog(c.logged));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // to be in the wait
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, agent.Stop(c.signal));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3 + c.probes));
        EXPECT_EQ(c.probes, AgentProcess::Logged("connection timeout"));
        EXPECT_EQ(0, AgentProcess::Logged(":9 unreachable"));
        EXPECT_EQ(1, AgentProcess::Logged("UnInit  rsyslog task"));
    }
    setenv("PATH", path.c_str(), 1);
}

}  // namespace
