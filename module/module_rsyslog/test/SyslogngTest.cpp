// The marked blocks of syslog-ng's configuration and of its AppArmor profile.

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using namespace TestSupport;

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

OpenTaskPtr ForwardingTask() {
    Shell("mkdir -p " + kBackups);
    OpenTaskPtr task = NewTask();
    task->rsyslog_policy.server_type = "udp";
    task->rsyslog_policy.log_path = {{"514", "/var/log/a", {"s1", "s2"}},
                                     {"601", "/var/log/b c", {"s1"}}};
    return task;
}

TEST(Syslogng, BlocksAreReplacedWhereTheyAre) {
    const std::string truncated = "a\n######WATCHPOST SYSLOGNG CONFIG BEGIN######\nb}" + kEnd;
    const std::pair<std::string, std::string> cases[] = {
        {std::string("\0\xff\r\n}", 5), std::string("\0\xff\r\n}", 5)},
        {"a}\n" + kBlock, "a}\n"},
        {"a\n" + kBlock + "lost" + kBlock + "b}\n# c", "a\nb}\n# c"},
        {"a\n" + kBegin + "b}\n", "a\n" + kBegin + "b}\n"},
        {"a" + kEnd + "b" + kBegin + "c}", "a" + kEnd + "bb" + kBegin + "c}"},
        {truncated, truncated},
    };
    for (const bool files : {true, false}) {
        OpenTaskPtr task = ForwardingTask();
        if (!files) {
            task->rsyslog_policy.log_path.clear();
        }
        for (const auto& [before, cleaned] : cases) {
            SCOPED_TRACE(before);
            const LogCapture log("module_rsyslog");
            WriteText(kConf, before);
            EXPECT_TRUE(task->OverWriteSyslogngConf());
            EXPECT_EQ(cleaned, ReadText(kBackups + "/syslog-ng.conf.watchpostbak"));
            EXPECT_EQ(cleaned + (files ? kBlock : ""), ReadText(kConf));

            WriteText(kProfile, before);
            EXPECT_TRUE(task->OverWriteSyslogngReadAuditConf());
            EXPECT_EQ(cleaned, ReadText(kBackups + "/sbin.syslog-ng.watchpostbak"));
            EXPECT_EQ(cleaned.substr(0, cleaned.rfind('}')) + (files ? kRules : "") + "}\n",
                      ReadText(kProfile));
            EXPECT_EQ(0, log.Errors());
        }
    }
}

// One thing is wrong at a time; the administrator's text stays in the file or in its backup.
TEST(Syslogng, FailuresKeepTheText) {
    const std::string conf = "admin's\n";
    const std::string profile = "admin {\n  rule,\n}\n";
    const auto read_only = [](const std::string& directory) {
        return "mount -o bind,ro " + directory + " " + directory;
    };
    const auto full_disk = [](const std::string& directory, const std::string& file) {
        return "cp " + file + " /tmp/kept && mount -t tmpfs -o size=16k full " + directory +
               " && cp /tmp/kept " + file + " && ! head -c 64k /dev/zero 2>&- >" + directory + "/x";
    };
    const struct {
        std::string fault;
        const char* logged;
        std::string conf_after, profile_after;
        const char* type = "udp";
    } cases[] = {
        {"rm " + kConf, "3 read syslog-ng.conf failed.", "", profile},
        {"rm " + kProfile, "3 read sbin.syslog-ng failed.", conf + kBlock, ""},
        {"truncate -s 10485761 " + kProfile, "3 read sbin.syslog-ng failed.", conf + kBlock,
         profile + std::string(10485761 - profile.size(), '\0')},
        {"echo text >" + kProfile, "3 not find }", conf + kBlock, "text\n"},
        {"rm -r " + kBackups + " && touch " + kBackups, "3 backup syslog-ng.conf failed.", conf,
         profile},
        {read_only("/etc/syslog-ng"), "3 write syslog-ng.conf failed.", conf, profile},
        {full_disk("/etc/syslog-ng", kConf), "3 write syslog-ng.conf failed.", conf, profile},
        {read_only("/etc/apparmor.d"), "3 write sbin.syslog-ng failed.", conf + kBlock, profile},
        {full_disk("/etc/apparmor.d", kProfile), "3 write sbin.syslog-ng failed.", conf + kBlock,
         profile},
        {"true", "3 server_type not tcp or udp, tls", conf, profile, "tls"},
    };
    std::remove("/run/service.log");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        const LogCapture log("module_rsyslog");
        OpenTaskPtr task = ForwardingTask();
        task->rsyslog_policy.server_type = c.type;
        WriteText(kConf, conf);
        WriteText(kProfile, profile);
        Shell(c.fault);
        task->SyslogServiceManage();
        EXPECT_EQ(1, log.Count(c.logged));
        EXPECT_EQ(1, log.Errors());
        EXPECT_TRUE(c.conf_after == ReadText(kConf));
        EXPECT_TRUE(c.profile_after == ReadText(kProfile));
        Shell("[ -d " + kBackups + " ] || rm " + kBackups +
              "; umount -q /etc/syslog-ng /etc/apparmor.d; true");
    }
    EXPECT_EQ("", ReadText("/run/service.log") + ReadText("/run/rcapparmor.log"));
}

}  // namespace
