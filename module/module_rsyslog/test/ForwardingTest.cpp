// Servers, balancing, and the configurations of rsyslog and of syslog-ng with its AppArmor profile.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "module/module_rsyslog/src/RsyslogWait.h"
#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/Paths.h"

namespace {

using namespace TestSupport;
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

// Each is tried, under its address or a name, and one that answers counts as unreachable, too.
TEST(ServerLists, TcpRemovesAllAndAddsNone) {
    Shell("echo 127.0.0.9 named >>/etc/hosts");
    sockaddr_in address = {AF_INET, 0, {inet_addr("127.0.0.9")}, {}};
    socklen_t length = sizeof(address);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(0, bind(server, name, length));
    ASSERT_EQ(0, listen(server, 8) + getsockname(server, name, &length));
    const std::string port = std::to_string(ntohs(address.sin_port));
    OpenTaskPtr task = TaskFor("tcp", true, {"127.0.0.9", "no.such.host.invalid"},
                               {"named", "255.255.255.255"}, port);
    const LogCapture log("module_rsyslog");
    EXPECT_TRUE(task->CheckSyslogNeedRewrite());
    EXPECT_GE(accept(server, nullptr, nullptr), 0);
    EXPECT_GE(accept(server, nullptr, nullptr), 0);
    EXPECT_EQ(-1, accept(server, nullptr, nullptr));
    EXPECT_FALSE(task->CheckSyslogNeedRewrite());
    EXPECT_TRUE(task->rsyslog_policy.log_path.front().servers.empty());
    EXPECT_EQ(1, log.Count("6 old server named:" + port + " unreachable"));
    EXPECT_EQ(1, log.Holding("3 connect failed. ret:-1 errno:"));
    EXPECT_EQ(2, log.Count("6 new server 127.0.0.9:" + port + " unreachable"));
    EXPECT_EQ(2, log.Count("3 can not resolve [no.such.host.invalid]"));
    EXPECT_EQ(3, log.Errors());
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
        EXPECT_EQ(1, log.Count("8 add new server 10.0.0.2:514 reachable"));
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

TEST(RsyslogConf, EntriesToTheByteSevenAtMost) {
    OpenTaskPtr task = TaskFor("", false, {}, {"10.0.0.5", "h2"});
    task->rsyslog_policy.log_path.push_back({"601", "/var/log/b c", {}});
    const LogCapture log("module_rsyslog");
    std::string out;
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
    for (const auto& [type, dir, rule, errors] :
         {std::tuple("udp", "/tmp/", "local1.* @s:514\n\n", ""),
          std::tuple("tcp6", "/tmp/", "local1.* @@s:514\n\n", ""),
          std::tuple("UDP", "/tmp/", "", "3 server_type not tcp or udp, UDP"),
          std::tuple("udp", "/no/such/", "",
                     "3 rsyslog write [/no/such/watchpost_rsyslog.conf] failed.")}) {
        SCOPED_TRACE(std::string(type) + dir);
        const LogCapture log("module_rsyslog", Poco::Message::PRIO_ERROR);
        const bool written = *rule != '\0';
        const std::string file = std::string(dir) + "watchpost_rsyslog.conf";
        WriteText(file, "old");
        fs::remove("/run/service.log");
        TaskFor(type, false, {}, {"s"})->RsyslogConfRewrite(dir);
        EXPECT_EQ(Split(errors), log.Lines());
        EXPECT_EQ(written ? "rsyslog restart\n" : "", ReadText("/run/service.log"));
        EXPECT_EQ(written, fs::exists(file));
        const std::string content = ReadText(file);
        EXPECT_EQ(written ? head : "", content.substr(0, head.size()));
        EXPECT_EQ(content.size(), content.rfind(rule) + std::strlen(rule));
    }
}

const std::string kConf = "/etc/syslog-ng/syslog-ng.conf";
const std::string kProfile = "/etc/apparmor.d/sbin.syslog-ng";
const std::string kBackups = "/usr/local/watchpost/conf";
const std::string kBegin = "######WATCHPOST SYSLOGNG CONFIG BEGIN######\n\n";
const std::string kEnd = "######WATCHPOST SYSLOGNG CONFIG END######\n\n";
const std::string kRules = kBegin + "  /var/log/a r,\n  /var/log/b c r,\n" + kEnd;
const std::string kBlock = kBegin +
                           "#userdef\nsource watchpost_src1 {\n\tfile(\"/var/log/a\" "
                           "follow-freq(10) flags(no-parse));\n};\n#userdef\n\n"
                           "destination watchpost_server1 { udp(\"s1\" port(514)); };\n\n"
                           "log { source(watchpost_src1); destination(watchpost_server1); };\n\n"
                           "destination watchpost_server2 { udp(\"s2\" port(514)); };\n\n"
                           "log { source(watchpost_src1); destination(watchpost_server2); };\n\n"
                           "#userdef\nsource watchpost_src2 {\n\tfile(\"/var/log/b c\" "
                           "follow-freq(10) flags(no-parse));\n};\n#userdef\n\n"
                           "destination watchpost_server3 { udp(\"s1\" port(601)); };\n\n"
                           "log { source(watchpost_src2); destination(watchpost_server3); };\n\n" +
                           kEnd;

// A task that forwards two files, with everything in place.
OpenTaskPtr SyslogngTask(const std::string& text) {
    Shell("mkdir -p " + kBackups);
    WriteText(kConf, text);
    WriteText(kProfile, text);
    OpenTaskPtr task = TaskFor("udp", false, {}, {"s1", "s2"});
    task->rsyslog_policy.log_path.push_back({"601", "/var/log/b c", {"s1"}});
    return task;
}

TEST(Syslogng, BlocksAreReplacedWhereTheyAre) {
    const std::string truncated = "a\n######WATCHPOST SYSLOGNG CONFIG BEGIN######\nb}" + kEnd;
    for (const auto& [before, cleaned] :
         {std::pair("\0\xff\r\n}"s, "\0\xff\r\n}"s), std::pair("a}\n" + kBlock, "a}\n"s),
          std::pair("a\n" + kBlock + "lost" + kBlock + "b}\n# c", "a\nb}\n# c"s),
          std::pair("a\n" + kBegin + "b}\n", "a\n" + kBegin + "b}\n"),
          std::pair("a" + kEnd + "b" + kBegin + "c}", "a" + kEnd + "bb" + kBegin + "c}"),
          std::pair(truncated, truncated)}) {
        for (const bool files : {true, false}) {
            SCOPED_TRACE(before);
            const LogCapture log("module_rsyslog");
            OpenTaskPtr task = SyslogngTask(before);
            if (!files) {
                task->rsyslog_policy.log_path.clear();
            }
            EXPECT_TRUE(task->OverWriteSyslogngConf() && task->OverWriteSyslogngReadAuditConf());
            EXPECT_EQ(cleaned, ReadText(kBackups + "/syslog-ng.conf.watchpostbak"));
            EXPECT_EQ(cleaned, ReadText(kBackups + "/sbin.syslog-ng.watchpostbak"));
            EXPECT_EQ(cleaned + (files ? kBlock : ""), ReadText(kConf));
            EXPECT_EQ(cleaned.substr(0, cleaned.rfind('}')) + (files ? kRules : "") + "}\n",
                      ReadText(kProfile));
            EXPECT_EQ(0, log.Errors());
        }
    }
}

// One thing is wrong at a time; the administrator's text stays in the file or in its backup.
TEST(Syslogng, FailuresKeepTheText) {
    const std::string text = "admin {\n  rule,\n}\n";
    const std::string written = text + kBlock;
    const auto read_only = [](const std::string& directory) {
        return "mount -o bind,ro " + directory + " " + directory;
    };
    const auto full_disk = [](const std::string& directory, const std::string& file) {
        return "cp " + file + " /tmp/kept && mount -t tmpfs -o size=16k full " + directory +
               " && cp /tmp/kept " + file + " && ! head -c 64k /dev/zero 2>&- >" + directory + "/x";
    };
    std::remove("/run/service.log");
    for (const auto& [fault, logged, conf_after, profile_after] :
         {std::tuple("rm " + kConf, "read syslog-ng.conf failed.", ""s, text),
          std::tuple("rm " + kProfile, "read sbin.syslog-ng failed.", written, ""s),
          std::tuple("truncate -s 10485761 " + kProfile, "read sbin.syslog-ng failed.", written,
                     text + std::string(10485761 - text.size(), '\0')),
          std::tuple("echo text >" + kProfile, "not find }", written, "text\n"s),
          std::tuple("rm -r " + kBackups + " && touch " + kBackups, "backup syslog-ng.conf failed.",
                     text, text),
          std::tuple(read_only("/etc/syslog-ng"), "write syslog-ng.conf failed.", text, text),
          std::tuple(full_disk("/etc/syslog-ng", kConf), "write syslog-ng.conf failed.", text,
                     text),
          std::tuple(read_only("/etc/apparmor.d"), "write sbin.syslog-ng failed.", written, text),
          std::tuple(full_disk("/etc/apparmor.d", kProfile), "write sbin.syslog-ng failed.",
                     written, text),
          std::tuple("true"s, "server_type not tcp or udp, tls", text, text)}) {
        SCOPED_TRACE(fault);
        const LogCapture log("module_rsyslog", Poco::Message::PRIO_ERROR);
        OpenTaskPtr task = SyslogngTask(text);
        task->rsyslog_policy.server_type = fault == "true" ? "tls" : "udp";
        Shell(fault);
        task->SyslogServiceManage();
        EXPECT_EQ(Strings{std::string("3 ") + logged}, log.Lines());
        EXPECT_TRUE(conf_after == ReadText(kConf));
        EXPECT_TRUE(profile_after == ReadText(kProfile));
        Shell("[ -d " + kBackups + " ] || rm " + kBackups +
              "; umount -q /etc/syslog-ng /etc/apparmor.d; true");
    }
    EXPECT_EQ("", ReadText("/run/service.log") + ReadText("/run/rcapparmor.log"));
}

// A stop that comes after half a second.
std::function<bool()> Soon() {
    return [end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500)] {
        return std::chrono::steady_clock::now() >= end;
    };
}

TEST(Wait, CommandsEndAtAStopOrGoOnAlone) {
    using Engine::Outcome;
    using Engine::RunCommand;
    const auto never = [] { return false; };
    int status = 0;
    std::string output;
    EXPECT_EQ(Outcome::kDone, RunCommand("exit 3", never, status));
    EXPECT_EQ(3, status);
    EXPECT_EQ(Outcome::kDone, RunCommand("kill -9 $$", never, status));
    EXPECT_EQ(-1, status);
    setenv("NOTIFY_SOCKET", "/run/notify", 1);
    EXPECT_EQ(Outcome::kDone,
              RunCommand("cat; echo $NOTIFY_SOCKET out; echo err >&2", never, status, output));
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ("out\nerr\n", output);
    EXPECT_EQ(Outcome::kDone, RunCommand("yes", never, status, output));
    EXPECT_EQ(16384U, output.size());

    // What it asks of a daemon is ended, with all that it has started, whatever that does.
    const std::string stubborn = "trap '' TERM; sh -c 'echo $$ >/run/p; sleep 100; sleep 100'";
    EXPECT_EQ(Outcome::kStopped, RunCommand(stubborn, Soon(), status, output));
    EXPECT_TRUE(Await([] { return kill(std::stoi(ReadText("/run/p")), 0) != 0; }));
    // A restart goes on, and the next command waits for its end.
    EXPECT_EQ(Outcome::kStopped, RunCommand("sleep 2; echo a >>/run/order", Soon(), status));
    EXPECT_EQ(Outcome::kStopped, RunCommand("echo b >>/run/order", Soon(), status));
    EXPECT_EQ(Outcome::kDone, RunCommand("echo c >>/run/order", never, status));
    EXPECT_EQ("a\nc\n", ReadText("/run/order"));
    // Three restarts in ten seconds are enough, for the next agent too.
    fs::create_directories(fs::path(SDK::Paths::kRestarts).parent_path());
    for (int i = 0; i < 4; ++i) {
        Engine::NoteRestart();
    }
    EXPECT_FALSE(Engine::AwaitRestartTurn(Soon()));
    EXPECT_EQ(3U, Split(ReadText(SDK::Paths::kRestarts), '\n').size());

    in_addr address = {};
    EXPECT_EQ(Outcome::kDone, Engine::LookUpHost("localhost", address, never));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.s_addr);
    EXPECT_EQ(Outcome::kFailed, Engine::LookUpHost("no.such.invalid", address, never));
    EXPECT_EQ(Outcome::kDone, Engine::LookUpHost("localhost", never));
    EXPECT_EQ(Outcome::kFailed, Engine::LookUpHost("no.such.invalid", never));
}

}  // namespace
