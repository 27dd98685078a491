// Servers, balancing, and rsyslog's configuration.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using namespace TestSupport;
using namespace std::string_literals;
using Servers = std::list<std::string>;

OpenTaskPtr TaskFor(const std::string& type, bool balance, const Servers& configured,
                    const Strings& chosen, const std::string& port = "514") {
    OpenTaskPtr task = NewTask();
    task->rsyslog_policy.server_type = type;
    task->rsyslog_policy.server_balance = balance;
    task->rsyslog_policy.server = configured;
    task->rsyslog_policy.log_path = {{port, "/var/log/a", chosen}};
    return task;
}

TEST(ServerLists, GrowByWhatIsNewInNoMoreTimeThanTheyAreLong) {
    Strings after = {"s2"};
    for (int i = 0; i < 100000; ++i) {
        after.push_back("10.0.0.1." + std::to_string(i));
    }
    Servers configured(after.begin() + 1, after.end());
    configured.insert(configured.end(), {"s2", "10.0.0.1.7"});
    OpenTaskPtr task = TaskFor("TCP", false, configured, {"s2"});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(task->CheckSyslogNeedRewrite());
    EXPECT_FALSE(task->CheckSyslogNeedRewrite());
    EXPECT_EQ(after, task->rsyslog_policy.log_path.front().servers);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
}

// Each is tried, also under a name that has to be looked up, and one that answers counts as
// unreachable, too.
TEST(ServerLists, TcpRemovesAllAndAddsNone) {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    ASSERT_EQ(0, listen(server, 8));
    ASSERT_EQ(0, getsockname(server, reinterpret_cast<sockaddr*>(&address), &length));
    const std::string port = std::to_string(ntohs(address.sin_port));
    OpenTaskPtr task = TaskFor("tcp", true, {"127.0.0.1", "no.such.host.invalid"},
                               {"localhost", "255.255.255.255"}, port);
    const LogCapture log("module_rsyslog");
    EXPECT_TRUE(task->CheckSyslogNeedRewrite());
    EXPECT_GE(accept(server, nullptr, nullptr), 0);  // localhost
    EXPECT_GE(accept(server, nullptr, nullptr), 0);
    EXPECT_EQ(-1, accept(server, nullptr, nullptr));
    EXPECT_FALSE(task->CheckSyslogNeedRewrite());
    EXPECT_TRUE(task->rsyslog_policy.log_path.front().servers.empty());
    EXPECT_EQ(1, log.Count("6 old server localhost:" + port + " unreachable"));
    EXPECT_EQ(1, log.Holding("3 connect failed. ret:-1 errno:"));
    EXPECT_EQ(2, log.Count("6 new server 127.0.0.1:" + port + " unreachable"));
    EXPECT_EQ(2, log.Count("3 can not resolve [no.such.host.invalid]"));
    EXPECT_EQ(3, log.Errors());
    close(server);
}

TEST(Balancing, PicksByTheFirstAddressOfTheHost) {
    // Besides 127.0.0.1, which does not count, an address of the host.
    for (const auto& [address, chosen, logged] :
         {std::tuple("10.0.0.5", "10.0.0.2", "8 need 1 server. ip 167772165"),
          std::tuple("10.0.0.4", "10.0.0.1", "8 need 0 server. ip 167772164"),
          std::tuple("200.0.0.1", "10.0.0.2", "8 need 1 server. ip 3355443201"),
          std::tuple("127.0.1.1", "10.0.0.2", "8 need 1 server. ip 2130706689"),
          std::tuple("127.0.0.3", "10.0.0.1", "8 need 0 server. ip 0")}) {
        SCOPED_TRACE(address);
        Shell(std::string("ip addr add ") + address + " dev lo");
        OpenTaskPtr task = TaskFor("udp", true, {"10.0.0.1", "10.0.0.2"}, {});
        const LogCapture log("module_rsyslog");
        EXPECT_TRUE(task->CheckSyslogNeedRewrite());
        EXPECT_FALSE(task->CheckSyslogNeedRewrite());
        EXPECT_EQ(Strings{chosen}, task->rsyslog_policy.log_path.front().servers);
        EXPECT_EQ(1, log.Count(logged));
        Shell(std::string("ip addr del ") + address + "/32 dev lo");
    }
}

TEST(RsyslogConf, IncludeDirectory) {
    OpenTaskPtr task = NewTask();
    for (const auto& [conf, directory] :
         {std::pair("\n# $IncludeConfig /a/*\n\t\nx\n$IncludeConfig\t  /b/*.conf\n"
                    "$IncludeConfig /c/*\n"s,
                    "/b/"),
          std::pair("include(file=\"/d/*.conf\" mode=\"optional\")\n$IncludeConfig /b/*\n"s, "/d/"),
          std::pair("  $IncludeConfig /etc/rsyslog.d/*.conf\n*.* /var/log/all\n"s, "none"),
          std::pair("include(file=\"/etc/one.conf\")\n"s, "/etc/one.conf\")"),
          std::pair("$IncludeConfig /no/newline/*.conf"s, "/no/newline/"),
          std::pair("$IncludeConfig *.conf\n"s, "before"), std::pair("$IncludeConfig  \n"s, "none"),
          // A line longer than the buffer goes on as a line of its own.
          std::pair("#" + std::string(1022, 'c') + "$IncludeConfig /no/*.conf\n", "/no/"),
          std::pair("FIFO"s, "none"), std::pair("gone"s, "none")}) {
        fs::remove("/etc/rsyslog.conf");
        if (conf == "FIFO") {
            Shell("mkfifo /etc/rsyslog.conf");
        } else if (conf != "gone") {
            WriteText("/etc/rsyslog.conf", conf);
        }
        char out[1024] = "before";
        EXPECT_STREQ(directory, task->GetIncludeConfigPath(out, sizeof(out)) ? out : "none")
            << conf;
    }
}

TEST(RsyslogConf, ContentToTheByteWithSevenFilesAtMost) {
    OpenTaskPtr task = NewTask();
    const LogCapture log("module_rsyslog");
    std::string out;
    task->rsyslog_policy.log_path = {{"514", "/var/log/a", {"10.0.0.5", "h2"}},
                                     {"601", "/var/log/b c", {}}};
    task->GenerateRsyslogConfContent(0, "@@", {1700000000, 123999}, out);
    EXPECT_EQ(
        "input(type=\"imfile\"\n\tFile=\"/var/log/a\"\n\tTag=\"\"\n"
        "\tStateFile=\"17000000001231\"\n\tSeverity=\"debug\"\n\tFacility=\"local1\")\n\n"
        "local1.* @@10.0.0.5:514\n\nlocal1.* @@h2:514\n\n"
        "input(type=\"imfile\"\n\tFile=\"/var/log/b c\"\n\tTag=\"\"\n"
        "\tStateFile=\"17000000001232\"\n\tSeverity=\"debug\"\n\tFacility=\"local2\")\n\n",
        out);
    for (const std::size_t files : {7U, 8U}) {
        task->rsyslog_policy.log_path.assign(files, {"514", "/x", {"s"}});
        task->GenerateRsyslogConfContent(0, "@", {}, out);
        const std::string last = "local7.* @s:514\n\n";
        EXPECT_EQ(last, out.substr(out.size() - last.size()));
        EXPECT_EQ(files - 7, log.Count("6 log path more than 7 ,size: 8"));
    }
}

TEST(RsyslogConf, RewriteByServerType) {
    const std::string head =
        "\n#### RULES ####\n\n"
        "module(load=\"imfile\" PollingInterval=\"10\") #needs to be done just once\n\ninput(";
    // Without a rule nothing is written.
    for (const auto& [type, dir, rule, error] :
         {std::tuple("udp", "/tmp/", "local1.* @s:514\n\n", ""),
          std::tuple("tcp6", "/tmp/", "local1.* @@s:514\n\n", ""),
          std::tuple("UDP", "/tmp/", "", "3 server_type not tcp or udp, UDP"),
          std::tuple("udp", "/no/such/", "",
                     "3 rsyslog write [/no/such/watchpost_rsyslog.conf] failed.")}) {
        SCOPED_TRACE(std::string(type) + dir);
        OpenTaskPtr task = TaskFor(type, false, {}, {"s"});
        const LogCapture log("module_rsyslog");
        const bool written = *rule != '\0';
        const std::string file = std::string(dir) + "watchpost_rsyslog.conf";
        WriteText(file, "old");
        fs::remove("/run/service.log");
        task->RsyslogConfRewrite(dir);
        EXPECT_EQ(written ? 0 : 1, log.Count(error));
        EXPECT_EQ(written ? "rsyslog restart\n" : "", ReadText("/run/service.log"));
        EXPECT_EQ(written, fs::exists(file));
        const std::string content = ReadText(file);
        EXPECT_EQ(written ? head : "", content.substr(0, head.size()));
        EXPECT_EQ(content.size(), content.rfind(rule) + std::strlen(rule));
    }
}

}  // namespace
