// Servers, balancing, and rsyslog's configuration.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using TestSupport::LogCapture;
using TestSupport::NewTask;
using TestSupport::OpenTaskPtr;
using TestSupport::ReadText;
using TestSupport::WriteText;
using Servers = std::vector<std::string>;

void Shell(const std::string& command) {
    ASSERT_EQ(0, std::system(command.c_str())) << command;
}

// An address of the host on an interface of its own (a bridge without ports: unlike a dummy, every
// kernel has it), while this lives.
class Address {
public:
    explicit Address(const std::string& address) {
        Shell("ip link add balance0 type bridge && ip addr add " + address +
              "/24 dev balance0 && ip link set balance0 up");
    }
    ~Address() { Shell("ip link del balance0"); }
    Address(const Address&) = delete;
    Address& operator=(const Address&) = delete;
};

// A TCP server on loopback that accepts, while this lives.
class Listener {
public:
    Listener() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        bind(socket_, reinterpret_cast<sockaddr*>(&address), length);
        listen(socket_, 8);
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = std::to_string(ntohs(address.sin_port));
    }
    ~Listener() { close(socket_); }
    const std::string& Port() const { return port_; }
    bool Connected() const { return accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK) >= 0; }

private:
    int socket_;
    std::string port_;
};

OpenTaskPtr TaskFor(const std::string& type, bool balance, const Servers& configured,
                    const Servers& chosen, const std::string& port = "514") {
    OpenTaskPtr task = NewTask();
    task->rsyslog_policy.server_type = type;
    task->rsyslog_policy.server_balance = balance;
    task->rsyslog_policy.server.assign(configured.begin(), configured.end());
    task->rsyslog_policy.log_path = {{port, "/var/log/a", chosen}};
    return task;
}

TEST(ServerLists, AddedOnceAndKept) {
    struct Case {
        const char* type;
        Servers chosen;
        Servers after;
        bool changed;
    };
    const Servers configured = {"10.0.0.1", "10.0.0.2", "10.0.0.1"};
    for (const Case& c : {Case{"udp", {}, {"10.0.0.1", "10.0.0.2"}, true},
                          Case{"", {"10.0.0.2"}, {"10.0.0.2", "10.0.0.1"}, true},
                          Case{"TCP", {"10.0.0.9"}, {"10.0.0.9", "10.0.0.1", "10.0.0.2"}, true},
                          Case{"udp", {"10.0.0.1", "10.0.0.2"}, {"10.0.0.1", "10.0.0.2"}, false}}) {
        SCOPED_TRACE(c.type);
        const LogCapture log("module_rsyslog");
        OpenTaskPtr task = TaskFor(c.type, false, configured, c.chosen);
        EXPECT_EQ(c.changed, task->CheckSyslogNeedRewrite());
        EXPECT_EQ(c.after, task->rsyslog_policy.log_path.front().servers);
        EXPECT_FALSE(task->CheckSyslogNeedRewrite());
        EXPECT_EQ(c.after, task->rsyslog_policy.log_path.front().servers);
        EXPECT_EQ(2, log.Count("8 check path /var/log/a"));
    }
    OpenTaskPtr task = NewTask();
    EXPECT_FALSE(task->CheckSyslogNeedRewrite());
}

// Also a server that answers counts as unreachable over TCP.
TEST(ServerLists, TcpRemovesAllAndAddsNone) {
    const Listener listener;
    for (const char* type : {"tcp", "tcp6"}) {
        const LogCapture log("module_rsyslog");
        OpenTaskPtr task = TaskFor(type, true, {"127.0.0.1", "no.such.host.invalid"},
                                   {"127.0.0.1", "127.0.0.2"}, listener.Port());
        EXPECT_TRUE(task->CheckSyslogNeedRewrite());
        EXPECT_TRUE(task->rsyslog_policy.log_path.front().servers.empty());
        EXPECT_EQ(1, log.Count("6 old server 127.0.0.1:" + listener.Port() + " unreachable"));
        EXPECT_EQ(1, log.Count("6 old server 127.0.0.2:" + listener.Port() + " unreachable"));
        EXPECT_EQ(1, log.Count("6 new server 127.0.0.1:" + listener.Port() + " unreachable"));
        EXPECT_EQ(1, log.Count("3 can not resolve [no.such.host.invalid]"));
        EXPECT_TRUE(listener.Connected());
        EXPECT_FALSE(task->CheckSyslogNeedRewrite());
    }
}

TEST(ServerLists, ProbeRestoresFlagsAndReportsRefusal) {
    const LogCapture log("module_rsyslog");
    OpenTaskPtr task = NewTask();
    EXPECT_FALSE(task->CheckIpReachable("255.255.255.255", "9"));
    EXPECT_EQ(1, log.Holding("3 connect failed. ret:-1 errno:"));

    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in nobody = {};
    nobody.sin_family = AF_INET;
    nobody.sin_port = htons(9);
    nobody.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int flags = fcntl(probe, F_GETFL);
    EXPECT_EQ(flags, task->DoConnect(probe, 3, nobody));
    EXPECT_EQ(flags | O_NONBLOCK, fcntl(probe, F_GETFL));
    close(probe);
}

TEST(Balancing, PicksByTheFirstAddressOfTheHost) {
    struct Case {
        const char* address;
        const char* chosen;
        const char* logged;
    };
    for (const Case& c : {Case{"10.0.0.5", "10.0.0.2", "8 need 1 server. ip 167772165"},
                          Case{"10.0.0.4", "10.0.0.1", "8 need 0 server. ip 167772164"},
                          Case{"200.0.0.1", "10.0.0.2", "8 need 1 server. ip 3355443201"}}) {
        SCOPED_TRACE(c.address);
        const Address address(c.address);
        const LogCapture log("module_rsyslog");
        OpenTaskPtr task = TaskFor("udp", true, {"10.0.0.1", "10.0.0.2"}, {});
        EXPECT_TRUE(task->CheckSyslogNeedRewrite());
        EXPECT_EQ(Servers{c.chosen}, task->rsyslog_policy.log_path.front().servers);
        EXPECT_EQ(1, log.Count(c.logged));
        EXPECT_EQ(1, log.Count(std::string("8 local ip ") + c.address));
        EXPECT_EQ(1,
                  log.Count(std::string("6 new server ") + c.chosen + ":514 reachable rewrite."));
        EXPECT_FALSE(task->CheckSyslogNeedRewrite());
        EXPECT_EQ(Servers{c.chosen}, task->rsyslog_policy.log_path.front().servers);
    }
}

TEST(Balancing, WithoutAnAddressTheFirstServer) {
    const LogCapture log("module_rsyslog");
    OpenTaskPtr task = TaskFor("udp", true, {"10.0.0.1", "10.0.0.2"}, {});
    Servers addresses = {"left over"};
    EXPECT_TRUE(task->GetLocalIpList(addresses, true));
    EXPECT_TRUE(addresses.empty());
    EXPECT_EQ(0, task->GetServiceBalanceCount(2));
    EXPECT_EQ(1, log.Count("8 need 0 server. ip 0"));
    Shell("ip addr add 127.0.1.1/8 dev lo");
    EXPECT_TRUE(task->GetLocalIpList(addresses, true));
    EXPECT_EQ(Servers{"127.0.1.1"}, addresses);
    EXPECT_TRUE(task->GetLocalIpList(addresses, false));
    EXPECT_EQ((Servers{"127.0.0.1", "127.0.1.1"}), addresses);
    Shell("ip addr del 127.0.1.1/8 dev lo");
    EXPECT_EQ(0, task->GetServiceBalanceCount(0));
}

TEST(RsyslogConf, IncludeDirectory) {
    struct Case {
        const char* conf;
        bool found;
        const char* directory;
    };
    const std::string long_comment = "#" + std::string(1022, 'c') + "$IncludeConfig /no/*.conf\n";
    const Case cases[] = {
        {"$IncludeConfig /etc/rsyslog.d/*.conf\n", true, "/etc/rsyslog.d/"},
        {"\n# $IncludeConfig /a/*\n\t\nx\n$IncludeConfig\t  /b/*.conf\n$IncludeConfig /c/*\n", true,
         "/b/"},
        {"include(file=\"/etc/rsyslog.d/*.conf\" mode=\"optional\")\n", true, "/etc/rsyslog.d/"},
        {"include(file=\"/d/*.conf\")\n$IncludeConfig /b/*.conf\n", true, "/d/"},
        {"  $IncludeConfig /etc/rsyslog.d/*.conf\n", false, "before"},
        {"include(file=\"/etc/one.conf\")\n", true, "/etc/one.conf\")"},
        {"$IncludeConfig /no/newline/*.conf", true, "/no/newline/"},
        {"$IncludeConfig *.conf\n", true, "before"},
        {"$IncludeConfig\n", false, "before"},
        {"$IncludeConfig  \n", false, "before"},
        {"", false, "before"},
        {"*.* /var/log/all\n", false, "before"},
        // A line longer than the buffer goes on as a line of its own.
        {long_comment.c_str(), true, "/no/"},
    };
    OpenTaskPtr task = NewTask();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.conf);
        WriteText("/etc/rsyslog.conf", c.conf);
        char out[1024] = "before";
        EXPECT_EQ(c.found, task->GetIncludeConfigPath(out, sizeof(out)));
        EXPECT_STREQ(c.directory, out);
    }
    std::remove("/etc/rsyslog.conf");
    char out[1024] = {};
    EXPECT_FALSE(task->GetIncludeConfigPath(out, sizeof(out)));
}

TEST(RsyslogConf, ContentToTheByte) {
    OpenTaskPtr task = NewTask();
    std::string out;
    timeval now = {};
    now.tv_sec = 1700000000;
    now.tv_usec = 123999;
    task->GenerateRsyslogConfContent(0, "@@", now, out);
    EXPECT_EQ("", out);
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
}

TEST(RsyslogConf, SevenFilesAtMost) {
    OpenTaskPtr task = NewTask();
    for (const std::size_t files : {7U, 8U}) {
        const LogCapture log("module_rsyslog");
        task->rsyslog_policy.log_path.assign(files, {"514", "/x", {"s"}});
        std::string out;
        task->GenerateRsyslogConfContent(0, "@", timeval{}, out);
        EXPECT_NE(std::string::npos, out.find("local7.* @s:514"));
        EXPECT_EQ(std::string::npos, out.find("local8"));
        EXPECT_EQ(files > 7 ? 1 : 0, log.Count("6 log path more than 7 ,size: 8"));
    }
}

TEST(RsyslogConf, RewriteByServerType) {
    struct Case {
        const char* type;
        bool entries;
        const char* dir;
        bool written;
        const char* logged;
    };
    mkdir("/etc/rsyslog.d", 0755);
    const std::string head =
        "\n#### RULES ####\n\n"
        "module(load=\"imfile\" PollingInterval=\"10\") #needs to be done just once\n\n";
    for (const Case& c :
         {Case{"udp", true, "/etc/rsyslog.d/", true, "8 run cmd: service rsyslog restart"},
          Case{"tcp6", true, "/etc/rsyslog.d/", true, "8 run cmd: service rsyslog restart"},
          Case{"udp", false, "/etc/rsyslog.d/", true, "8 run cmd: service rsyslog restart"},
          Case{"UDP", true, "/etc/rsyslog.d/", false, "3 server_type not tcp or udp, UDP"},
          Case{"", true, "/etc/rsyslog.d/", false, "3 server_type not tcp or udp, "},
          Case{"udp", true, "/no/such/", false,
               "3 rsyslog write [/no/such/watchpost_rsyslog.conf] failed."}}) {
        SCOPED_TRACE(std::string(c.type) + c.dir);
        const LogCapture log("module_rsyslog");
        const std::string path = std::string(c.dir) + "watchpost_rsyslog.conf";
        WriteText(path, "old");
        std::remove("/run/service.log");
        OpenTaskPtr task = NewTask();
        task->rsyslog_policy.server_type = c.type;
        if (c.entries) {
            task->rsyslog_policy.log_path = {{"514", "/var/log/a", {"s"}}};
        }
        task->RsyslogConfRewrite(c.dir);
        EXPECT_EQ(path, task->rsyslog_conf_file);
        EXPECT_EQ(1, log.Count(c.logged));
        EXPECT_EQ(c.written, access(path.c_str(), F_OK) == 0);
        EXPECT_EQ(c.written ? "rsyslog restart\n" : "", ReadText("/run/service.log"));
        const std::string content = ReadText(path);
        if (!c.written || !c.entries) {
            EXPECT_EQ("", content);
            continue;
        }
        EXPECT_EQ(head, content.substr(0, head.size()));
        const std::string rule =
            std::string("local1.* ") + (*c.type == 't' ? "@@" : "@") + "s:514\n\n";
        EXPECT_EQ(rule, content.substr(content.size() - rule.size()));
    }
    OpenTaskPtr task = NewTask();
    EXPECT_FALSE(task->CreatAndWriteRsyslogConf(nullptr));
}

}  // namespace
