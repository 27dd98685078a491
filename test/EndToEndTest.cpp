// The whole system: the watchpost executable with its modules, the host's real syslog daemon, and
// servers that receive.

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <fstream>

#include "test/support/AgentProcess.h"
#include "test/support/TestSupport.h"

namespace {

using TestSupport::AgentProcess;
using TestSupport::Await;
using TestSupport::ReadText;
using TestSupport::WriteText;

const char* const kInclude = "/etc/rsyslog.d/watchpost_rsyslog.conf";
const char* const kNoDaemon = "rsyslog or syslog-ng status is not running.";

std::string Policy(const std::string& content, const std::string& more = "") {
    return R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature",)" + more +
           R"("content":)" + content + "}";
}

void Append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::app) << text;
}

// A remote syslog server on UDP.
class Server {
public:
    Server(const std::string& host, int port)
        : socket_(Poco::Net::SocketAddress(host, static_cast<Poco::UInt16>(port))) {}

    // Whether a datagram with this priority and text is among all that have arrived.
    bool Has(int priority, const std::string& text) {
        while (socket_.poll(Poco::Timespan(0), Poco::Net::Socket::SELECT_READ)) {
            char datagram[65536];
            const int length = socket_.receiveBytes(datagram, sizeof(datagram));
            arrived_.emplace_back(datagram, static_cast<std::size_t>(length));
        }
        const std::string start = "<" + std::to_string(priority) + ">";
        for (const auto& each : arrived_) {
            if (each.compare(0, start.size(), start) == 0 && each.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

private:
    Poco::Net::DatagramSocket socket_;
    std::vector<std::string> arrived_;
};

// A syslog daemon of the host with Debian's configuration, "rsyslogd" or "syslog-ng".
class Daemon {
public:
    explicit Daemon(const std::string& name) : pid_file_("/run/" + name + ".pid") {
        std::filesystem::remove("/run/service.log");
        const std::string command = name == "syslog-ng" ? "syslog-ng --pidfile=" + pid_file_ : name;
        EXPECT_EQ(0, std::system((command + " >/run/daemon.out 2>&1").c_str()));
        EXPECT_TRUE(Await([this] { return !ReadText(pid_file_).empty(); }));
    }
    ~Daemon() {
        const pid_t pid = std::atoi(ReadText(pid_file_).c_str());
        kill(pid, SIGTERM);
        EXPECT_TRUE(Await([pid] { return kill(pid, 0) != 0; }));
        std::remove(kInclude);
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

private:
    const std::string pid_file_;
};

// Servers on two addresses, each with a port for the first forwarded file and one for the second.
class Servers {
public:
    // Appends 20 lines to each file, and expects every one at every server under the priority of
    // its file.
    void ExpectAll(const std::string& first, int first_priority, const std::string& second,
                   int second_priority) {
        for (int i = 0; i < 20; ++i) {
            Append(first, "line " + std::to_string(i) + " of " + first + "\n");
            Append(second, "line " + std::to_string(i) + " of " + second + "\n");
        }
        for (Server& server : first_) {
            Expect(server, first, first_priority);
        }
        for (Server& server : second_) {
            Expect(server, second, second_priority);
        }
    }

private:
    static void Expect(Server& server, const std::string& file, int priority) {
        for (int i = 0; i < 20; ++i) {
            const std::string line = "line " + std::to_string(i) + " of " + file;
            EXPECT_TRUE(Await([&] { return server.Has(priority, line); })) << line;
        }
    }

    Server first_[2] = {{"127.0.0.1", 5514}, {"127.0.0.2", 5514}};
    Server second_[2] = {{"127.0.0.1", 5515}, {"127.0.0.2", 5515}};
};

std::string ForwardingPolicy(const std::string& first, const std::string& second) {
    return Policy(R"({"server_type":"udp","server_balance":false,
        "server":["127.0.0.1","127.0.0.2"],"log_path":[")" +
                  first + R"(:5514",")" + second + R"(:5515"]})");
}

int Count(const std::string& text, const std::string& piece) {
    int count = 0;
    for (std::size_t at = text.find(piece); at != std::string::npos;
         at = text.find(piece, at + 1)) {
        ++count;
    }
    return count;
}

TEST(EndToEnd, RsyslogForwardsTwoFilesToTwoServers) {
    const Daemon rsyslogd("rsyslogd");
    Servers servers;
    AgentProcess agent;
    AgentProcess::Policy("p.json", ForwardingPolicy("/var/log/a.log", "/var/log/b.log"));
    ASSERT_TRUE(AgentProcess::AwaitLog("run cmd: service rsyslog restart"));
    EXPECT_EQ("rsyslog restart\n", ReadText("/run/service.log"));
    servers.ExpectAll("/var/log/a.log", 17 * 8 + 7, "/var/log/b.log",
                      18 * 8 + 7);  // local1, local2

    // rsyslogd's own check finds one fault: the state-file parameter, accepted but deprecated.
    [[maybe_unused]] const int status = std::system("rsyslogd -N1 >/run/check.out 2>&1");
    std::istringstream check(ReadText("/run/check.out"));
    int deprecated = 0;
    for (std::string line; std::getline(check, line);) {
        if (line.find("parameter 'statefile' deprecated but accepted") != std::string::npos) {
            ++deprecated;
        } else {
            EXPECT_NE(std::string::npos, line.find("config validation run")) << line;
        }
    }
    EXPECT_EQ(2, deprecated);
    EXPECT_EQ(0, agent.Stop());
    EXPECT_EQ(0, access(kInclude, F_OK));
}

TEST(EndToEnd, SyslogngForwardsTwoFilesToTwoServersAndOthersUnderTheNextPolicy) {
    const std::string conf = "/etc/syslog-ng/syslog-ng.conf";
    const std::string profile = "/etc/apparmor.d/sbin.syslog-ng";
    const std::string administrators = ReadText(conf);
    std::filesystem::remove("/run/rcapparmor.log");
    const Daemon syslogng("syslog-ng");
    Servers servers;
    AgentProcess agent;
    int round = 0;
    for (const char* name : {"a", "b"}) {
        const std::string first = std::string("/var/log/first_") + name;
        const std::string second = std::string("/var/log/second_") + name;
        WriteText(first, "");
        WriteText(second, "");
        AgentProcess::Policy("p.json", ForwardingPolicy(first, second));
        ASSERT_TRUE(AgentProcess::AwaitLog("run cmd: rcapparmor restart & service syslog restart",
                                           ++round));
        servers.ExpectAll(first, 13, second, 13);  // lines without a priority: user, notice

        EXPECT_EQ(0U, ReadText(conf).find(administrators));
        for (const std::string& file : {conf, profile}) {
            EXPECT_EQ(1, Count(ReadText(file), "WATCHPOST SYSLOGNG CONFIG BEGIN"));
            EXPECT_EQ(1, Count(ReadText(file), first));
        }
        EXPECT_EQ(0, std::system("syslog-ng -s >/run/check.out 2>&1"))
            << ReadText("/run/check.out");
    }
    // The parser took the real profile with the block both times.
    EXPECT_EQ("restart 0\nrestart 0\n", ReadText("/run/rcapparmor.log"));
    EXPECT_EQ("syslog restart\nsyslog restart\n", ReadText("/run/service.log"));
    EXPECT_EQ(administrators, ReadText(AgentProcess::Path("conf/syslog-ng.conf.watchpostbak")));
    EXPECT_EQ(0, agent.Stop());
    WriteText(conf, administrators);
}

TEST(EndToEnd, PoliciesReplaceEachOtherWithoutLoss) {
    AgentProcess agent;
    const int kPolicies = 5;
    for (int i = 1; i <= kPolicies; ++i) {
        AgentProcess::Policy("p.json", Policy(R"({"check_period_s":1})",
                                              R"("hash":")" + std::to_string(i) + R"(",)"));
        ASSERT_TRUE(AgentProcess::AwaitLog("syslog alarm message is", i)) << i;
        EXPECT_EQ(i - 1, AgentProcess::Logged("UnInit  rsyslog task"));
    }
    // Refused documents change nothing: the last task goes on.
    AgentProcess::Policy("q.json", R"({"module_name":"rsyslog_module","feature_name":"x"})");
    ASSERT_TRUE(AgentProcess::AwaitLog("unknown feature name"));
    AgentProcess::Policy("r.json", R"({"module_name":"rsyslog_module",
                                       "feature_name":"rsyslog_feature"})");
    ASSERT_TRUE(AgentProcess::AwaitLog("policy r.json refused"));
    const int runs = AgentProcess::Logged("rsyslog task Start");
    EXPECT_TRUE(AgentProcess::AwaitLog("rsyslog task Start", runs + 1));
    EXPECT_EQ(kPolicies - 1, AgentProcess::Logged("UnInit  rsyslog task"));

    AgentProcess::Policy("p.json", Policy("{}", R"("enable":false,)"));
    EXPECT_TRUE(AgentProcess::AwaitLog("is switched off"));
    EXPECT_EQ(kPolicies, AgentProcess::Logged("UnInit  rsyslog task"));
    EXPECT_EQ(0, agent.Stop());

    const auto reports = AgentProcess::Reports();
    EXPECT_EQ(static_cast<std::size_t>(kPolicies), reports.size());
    for (const auto& report : reports) {
        EXPECT_EQ("rsyslog_3", report["type"].asString());
        EXPECT_EQ("rsyslog_task", report["task"].asString());
        EXPECT_EQ(kNoDaemon, report["content"]["message"].asString());
    }
}

// Servers behind an interface where nobody answers: a probe of each takes three seconds.
TEST(EndToEnd, AStopEndsACycleBetweenTwoProbes) {
    const Daemon rsyslogd("rsyslogd");
    ASSERT_EQ(0,
              std::system("ip link add silent0 type bridge && ip addr add 10.0.0.5/24 dev silent0 "
                          "&& ip link set silent0 up && for i in 6 7 8 9; do ip neigh add "
                          "10.0.0.$i lladdr 02:00:00:00:00:09 dev silent0; done"));
    AgentProcess agent;
    AgentProcess::Policy("p.json", Policy(R"({"server_type":"tcp","log_path":["/var/log/a.log:9"],
        "server":["10.0.0.6","10.0.0.7","10.0.0.8","10.0.0.9"]})"));
    EXPECT_TRUE(AgentProcess::AwaitLog("check path"));
    EXPECT_EQ(0, agent.Stop());
    EXPECT_EQ(1, AgentProcess::Logged("connection timeout"));
    EXPECT_EQ(1, AgentProcess::Logged("UnInit  rsyslog task"));
    EXPECT_EQ(0, std::system("ip link del silent0"));
}

// The disk has room again at the moment of the stop: what is queued is written.
TEST(EndToEnd, ReportsQueuedAtAStopAreWritten) {
    std::filesystem::create_directories("/run/small");
    ASSERT_EQ(0, mount("small", "/run/small", "tmpfs", 0, "size=16k"));
    WriteText("/run/small/fill", std::string(64 << 10, 'x'));
    std::filesystem::create_directories(AgentProcess::Path("conf"));
    WriteText(AgentProcess::Path("conf/watchpost.properties"),
              "report.file = /run/small/report.jsonl\n");
    AgentProcess agent;
    for (int i = 1; i <= 3; ++i) {
        AgentProcess::Policy("p.json", Policy("{}", R"("hash":")" + std::to_string(i) + R"(",)"));
        EXPECT_TRUE(AgentProcess::AwaitLog("syslog alarm message is", i));
    }
    EXPECT_TRUE(AgentProcess::AwaitLog("cannot be written, trying again"));
    std::filesystem::remove("/run/small/fill");
    EXPECT_EQ(0, agent.Stop());
    EXPECT_EQ(3, Count(ReadText("/run/small/report.jsonl"), kNoDaemon));
    EXPECT_EQ(0, umount("/run/small"));
}

TEST(EndToEnd, BadPoliciesAreErrorsAndChangeNothing) {
    AgentProcess agent;
    AgentProcess::Policy("good.json", Policy(R"({"check_period_s":1})"));
    ASSERT_TRUE(AgentProcess::AwaitLog("rsyslog task Start"));

    const std::string nested = std::string(100000, '[') + std::string(100000, ']');
    const std::string wrong_kinds = R"({"module_name":"rsyslog_module",
        "feature_name":"rsyslog_feature","enable":"?","hash":1,"policy_id":[],"content":"none"})";
    const struct {
        const char* name;
        std::string text;
        const char* logged;
    } cases[] = {
        {"empty", "", "Parse Policy Failed"},
        {"not_json", "enable = true", "Parse Policy Failed"},
        {"cut_off", Policy("{}").substr(0, 60), "Parse Policy Failed"},
        {"nested", nested, "Parse Policy Failed"},
        {"nested_content", Policy(nested), "Parse Policy Failed"},
        {"wrong_kinds", R"({"module_name":1,"feature_name":2,"content":3})", "does not belong"},
        {"wrong_content", wrong_kinds, "policy wrong_content.json refused"},
        {"no_period", Policy(R"({"check_period_s":0})"), "policy no_period.json refused"},
        {"huge", std::string(50 << 20, ' '), "huge.json cannot be read: File too large"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int before = AgentProcess::Logged(c.logged);
        AgentProcess::Policy(std::string(c.name) + ".json", c.text);
        EXPECT_TRUE(AgentProcess::AwaitLog(c.logged, before + 1));
    }
    std::filesystem::create_directory(AgentProcess::Path("policy/directory.json"));
    EXPECT_TRUE(AgentProcess::AwaitLog("directory.json cannot be read: Is a directory"));
    std::filesystem::create_symlink("/nowhere", AgentProcess::Path("policy/dangling.json"));
    EXPECT_TRUE(AgentProcess::AwaitLog("dangling.json cannot be read: No such file"));

    const int runs = AgentProcess::Logged("rsyslog task Start");
    EXPECT_TRUE(AgentProcess::AwaitLog("rsyslog task Start", runs + 1));
    EXPECT_EQ(0, AgentProcess::Logged("UnInit  rsyslog task"));
    EXPECT_EQ(0, agent.Stop());
    EXPECT_EQ(1U, AgentProcess::Reports().size());
}

}  // namespace
