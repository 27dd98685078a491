// Servers, balancing, and rsyslog's configuration.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using TestSupport::LogCapture;
using TestSupport::NewTask;
using TestSupport::OpenTaskPtr;
using Servers = std::vector<std::string>;

OpenTaskPtr TaskFor(const std::string& type, bool balance, const std::list<std::string>& configured,
                    const Servers& chosen, const std::string& port = "514") {
    OpenTaskPtr task = NewTask();
    task->rsyslog_policy.server_type = type;
    task->rsyslog_policy.server_balance = balance;
    task->rsyslog_policy.server = configured;
    task->rsyslog_policy.log_path = {{port, "/var/log/a", chosen}};
    return task;
}

TEST(ServerLists, AddedOnceAndKept) {
    struct Case {
        const char* type;
        Servers chosen, after;
        bool changed;
    };
    for (const Case& c : {Case{"udp", {}, {"10.0.0.1", "10.0.0.2"}, true},
                          Case{"TCP", {"10.0.0.9"}, {"10.0.0.9", "10.0.0.1", "10.0.0.2"}, true},
                          Case{"", {"10.0.0.2", "10.0.0.1"}, {"10.0.0.2", "10.0.0.1"}, false}}) {
        SCOPED_TRACE(c.type);
        OpenTaskPtr task = TaskFor(c.type, false, {"10.0.0.1", "10.0.0.2", "10.0.0.1"}, c.chosen);
        EXPECT_EQ(c.changed, task->CheckSyslogNeedRewrite());
        EXPECT_FALSE(task->CheckSyslogNeedRewrite());
        EXPECT_EQ(c.after, task->rsyslog_policy.log_path.front().servers);
    }
}

TEST(ServerLists, AreSearchedInNoMoreTimeThanTheyAreLong) {
    std::list<std::string> configured;
    for (int i = 0; i < 100000; ++i) {
        configured.push_back("10.0.0.1." + std::to_string(i));
    }
    OpenTaskPtr task = TaskFor("udp", false, configured, {});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(task->CheckSyslogNeedRewrite());
    EXPECT_FALSE(task->CheckSyslogNeedRewrite());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    EXPECT_EQ(100000U, task->rsyslog_policy.log_path.front().servers.size());
}

// Also a server that answers counts as unreachable over TCP.
TEST(ServerLists, TcpRemovesAllAndAddsNone) {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    ASSERT_EQ(0, listen(server, 8));
    ASSERT_EQ(0, getsockname(server, reinterpret_cast<sockaddr*>(&address), &length));
    const std::string port = std::to_string(ntohs(address.sin_port));
    const LogCapture log("module_rsyslog");
    OpenTaskPtr task = TaskFor("tcp", true, {"127.0.0.1", "no.such.host.invalid"},
                               {"127.0.0.1", "255.255.255.255"}, port);
    EXPECT_TRUE(task->CheckSyslogNeedRewrite());
    EXPECT_FALSE(task->CheckSyslogNeedRewrite());
    EXPECT_TRUE(task->rsyslog_policy.log_path.front().servers.empty());
    EXPECT_EQ(1, log.Count("6 old server 127.0.0.1:" + port + " unreachable"));
    EXPECT_EQ(1, log.Holding("3 connect failed. ret:-1 errno:"));
    EXPECT_EQ(2, log.Count("6 new server 127.0.0.1:" + port + " unreachable"));
    EXPECT_EQ(2, log.Count("3 can not resolve [no.such.host.invalid]"));
    EXPECT_GE(accept(server, nullptr, nullptr), 0);
    close(server);
}

TEST(Balancing, PicksByTheFirstAddressOfTheHost) {
    struct Case {
        std::string address;  // besides 127.0.0.1, which does not count
        const char *chosen, *logged;
    };
    for (const Case& c : {Case{"10.0.0.5", "10.0.0.2", "8 need 1 server. ip 167772165"},
                          Case{"10.0.0.4", "10.0.0.1", "8 need 0 server. ip 167772164"},
                          Case{"200.0.0.1", "10.0.0.2", "8 need 1 server. ip 3355443201"},
                          Case{"127.0.1.1", "10.0.0.2", "8 need 1 server. ip 2130706689"},
                          Case{"127.0.0.3", "10.0.0.1", "8 need 0 server. ip 0"}}) {
        SCOPED_TRACE(c.address);
        ASSERT_EQ(0, std::system(("ip addr add " + c.address + " dev lo").c_str()));
        const LogCapture log("module_rsyslog");
        OpenTaskPtr task = TaskFor("udp", true, {"10.0.0.1", "10.0.0.2"}, {});
        EXPECT_TRUE(task->CheckSyslogNeedRewrite());
        EXPECT_FALSE(task->CheckSyslogNeedRewrite());
        EXPECT_EQ(Servers{c.chosen}, task->rsyslog_policy.log_path.front().servers);
        EXPECT_EQ(1, log.Count(c.logged));
        ASSERT_EQ(0, std::system(("ip addr del " + c.address + "/32 dev lo").c_str()));
    }
}

TEST(RsyslogConf, IncludeDirectory) {
    const std::pair<std::string, std::string> cases[] = {
        {"\n# $IncludeConfig /a/*\n\t\nx\n$IncludeConfig\t  /b/*.conf\n$IncludeConfig /c/*\n",
         "/b/"},
        {"include(file=\"/d/*.conf\" mode=\"optional\")\n$IncludeConfig /b/*.conf\n", "/d/"},
        {"  $IncludeConfig /etc/rsyslog.d/*.conf\n*.* /var/log/all\n", "none"},
        {"include(file=\"/etc/one.conf\")\n", "/etc/one.conf\")"},
        {"$IncludeConfig /no/newline/*.conf", "/no/newline/"},
        {"$IncludeConfig *.conf\n", "before"},
        {"$IncludeConfig  \n", "none"},
        // A line longer than the buffer goes on as a line of its own.
        {"#" + std::string(1022, 'c') + "$IncludeConfig /no/*.conf\n", "/no/"},
    };
    for (const auto& [conf, directory] : cases) {
        TestSupport::WriteText("/etc/rsyslog.conf", conf);
        char out[1024] = "before";
        const bool found = NewTask()->GetIncludeConfigPath(out, sizeof(out));
        EXPECT_EQ(directory, found ? out : "none") << conf;
    }
    std::remove("/etc/rsyslog.conf");
    char out[1024];
    ASSERT_EQ(0, mkfifo("/etc/rsyslog.conf", 0600));
    EXPECT_FALSE(NewTask()->GetIncludeConfigPath(out, sizeof(out)));
    std::remove("/etc/rsyslog.conf");
    EXPECT_FALSE(NewTask()->GetIncludeConfigPath(out, sizeof(out)));
}

TEST(RsyslogConf, ContentToTheByteWithSevenFilesAtMost) {
    OpenTaskPtr task = NewTask();
    const LogCapture log("module_rsyslog");
    std::string out;
    const timeval now = {1700000000, 123999};
    task->rsyslog_policy.log_path = {{"514", "/var/log/a", {"10.0.0.5", "h2"}},
                                     {"601", "/var/log/b c", {}}};
    task->GenerateRsyslogConfContent(0, "@@", now, out);
    EXPECT_EQ(
        "input(type=\"imfile\"\n\tFile=\"/var/log/a\"\n\tTag=\"\"\n"
        "\tStateFile=\"17000000001231\"\n\tSeverity=\"debug\"\n\tFacility=\"local1\")\n\n"
        "local1.* @@10.0.0.5:514\n\nlocal1.* @@h2:514\n\n"
        "input(type=\"imfile\"\n\tFile=\"/var/log/b c\"\n\tTag=\"\"\n"
        "\tStateFile=\"17000000001232\"\n\tSeverity=\"debug\"\n\tFacility=\"local2\")\n\n",
        out);
    for (const std::size_t files : {7U, 8U}) {
        task->rsyslog_policy.log_path.assign(files, {"514", "/x", {"s"}});
        out.clear();
        task->GenerateRsyslogConfContent(0, "@", now, out);
        const std::string last = "local7.* @s:514\n\n";
        EXPECT_EQ(out.size(), out.find(last) + last.size());
        EXPECT_EQ(files - 7, log.Count("6 log path more than 7 ,size: 8"));
    }
}

TEST(RsyslogConf, RewriteByServerType) {
    struct Case {
        std::string type, dir, rule, error;  // without a rule nothing is written
    };
    const std::string head =
        "\n#### RULES ####\n\n"
        "module(load=\"imfile\" PollingInterval=\"10\") #needs to be done just once\n\ninput(";
    for (const Case& c : {Case{"udp", "/tmp/", "local1.* @s:514\n\n", ""},
                          Case{"tcp6", "/tmp/", "local1.* @@s:514\n\n", ""},
                          Case{"UDP", "/tmp/", "", "server_type not tcp or udp, UDP"},
                          Case{"udp", "/no/such/", "",
                               "rsyslog write [/no/such/watchpost_rsyslog.conf] failed."}}) {
        SCOPED_TRACE(c.type + c.dir);
        const LogCapture log("module_rsyslog");
        OpenTaskPtr task = TaskFor(c.type, false, {}, {"s"});
        TestSupport::WriteText(c.dir + "watchpost_rsyslog.conf", "old");
        std::remove("/run/service.log");
        task->RsyslogConfRewrite(c.dir.c_str());
        EXPECT_EQ(c.rule.empty() ? 1 : 0, log.Count("3 " + c.error));
        EXPECT_EQ(c.rule.empty() ? "" : "rsyslog restart\n",
                  TestSupport::ReadText("/run/service.log"));
        EXPECT_EQ(c.rule.empty(), access(task->rsyslog_conf_file.c_str(), F_OK) != 0);
        const std::string content = TestSupport::ReadText(c.dir + "watchpost_rsyslog.conf");
        EXPECT_EQ(c.rule.empty() ? "" : head, content.substr(0, head.size()));
        EXPECT_EQ(content.size(), content.rfind(c.rule) + c.rule.size());
    }
}

}  // namespace
