// The marked blocks of syslog-ng's configuration and of its AppArmor profile.

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cstdlib>
#include <filesystem>
#include <functional>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using TestSupport::LogCapture;
using TestSupport::NewTask;
using TestSupport::OpenTaskPtr;
using TestSupport::ReadText;
using TestSupport::WriteText;

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

class Syslogng : public testing::Test {
protected:
    Syslogng() {
        std::filesystem::create_directories(kBackups);
        std::filesystem::create_directories("/etc/syslog-ng");
        WriteText(kConf, "conf\n");
        WriteText(kProfile, "profile {\n}\n");
        std::remove("/run/service.log");
        std::remove("/run/rcapparmor.log");
        task_->rsyslog_policy.server_type = "udp";
        task_->rsyslog_policy.log_path = {{"514", "/var/log/a", {"s1", "s2"}},
                                          {"601", "/var/log/b c", {"s1"}}};
    }
    ~Syslogng() override { std::filesystem::remove_all(kBackups); }

    OpenTaskPtr task_ = NewTask();
    LogCapture log_{"module_rsyslog"};
};

TEST_F(Syslogng, BlocksAreReplacedWhereTheyAre) {
    const struct {
        const char* label;
        std::string before;
        std::string cleaned;
    } cases[] = {
        {"none", "a {\n}\n", "a {\n}\n"},
        {"binary", std::string("\0\xff\r\n}", 5), std::string("\0\xff\r\n}", 5)},
        {"at the end", "a}\n" + kBlock, "a}\n"},
        {"in the middle, two", "a\n" + kBlock + "lost" + kBlock + "b}\n", "a\nb}\n"},
        {"begin only", "a\n" + kBegin + "b}\n", "a\n" + kBegin + "b}\n"},
        {"end only", "a\n" + kEnd + "b}\n", "a\n" + kEnd + "b}\n"},
        {"end first", "a" + kEnd + "b" + kBegin + "c}", "a" + kEnd + "bb" + kBegin + "c}"},
        {"marker without its empty line", "a\n######WATCHPOST SYSLOGNG CONFIG BEGIN######\nb}",
         "a\n######WATCHPOST SYSLOGNG CONFIG BEGIN######\nb}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        WriteText(kConf, c.before);
        EXPECT_TRUE(task_->OverWriteSyslogngConf());
        EXPECT_EQ(c.cleaned, ReadText(kBackups + "/syslog-ng.conf.watchpostbak"));
        EXPECT_EQ(c.cleaned + kBlock, ReadText(kConf));

        WriteText(kProfile, c.before);
        EXPECT_TRUE(task_->OverWriteSyslogngReadAuditConf());
        EXPECT_EQ(c.cleaned, ReadText(kBackups + "/sbin.syslog-ng.watchpostbak"));
        const std::string patched = c.cleaned.substr(0, c.cleaned.rfind('}')) + kRules + "}\n";
        EXPECT_EQ(patched, ReadText(kProfile));
    }
    EXPECT_EQ(2, log_.Count("8 find str endpos: " +
                            std::to_string(std::string("a\n").size() + 2 * kBlock.size() + 4 -
                                           kEnd.size()) +
                            ", len 43, allsize " +
                            std::to_string(std::string("a\nlostb}\n").size() + 2 * kBlock.size())));
    EXPECT_EQ(1, log_.Count("8 after delete readaudit: a\nb}\n"));
    EXPECT_EQ(0, log_.Errors());
}

TEST_F(Syslogng, NothingToForward) {
    task_->rsyslog_policy.log_path.clear();
    WriteText(kConf, "a\n" + kBlock);
    WriteText(kProfile, "p {\n" + kRules + "}\n# comment\n");
    EXPECT_TRUE(task_->OverWriteSyslogngConf());
    EXPECT_TRUE(task_->OverWriteSyslogngReadAuditConf());
    EXPECT_EQ("a\n", ReadText(kConf));
    EXPECT_EQ("p {\n}\n", ReadText(kProfile));
}

// One thing is wrong at a time; the administrator's text stays in the file or in its backup.
TEST_F(Syslogng, FailuresKeepTheText) {
    const std::string conf = "admin's\n";
    const std::string profile = "admin {\n  rule,\n}\n";
    const auto remove = [](const std::string& path) {
        return [path] { std::filesystem::remove_all(path); };
    };
    const auto full = [](const std::string& path) {
        return [path] {
            const std::string directory = std::filesystem::path(path).parent_path();
            const std::string text = ReadText(path);
            ASSERT_EQ(0, mount("full", directory.c_str(), "tmpfs", 0, "size=16k"));
            WriteText(path, text);
            WriteText(directory + "/fill", std::string(64 << 10, 'x'));
        };
    };
    const auto read_only = [](const std::string& directory) {
        return [directory] {
            ASSERT_EQ(0, mount(directory.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr));
            ASSERT_EQ(0, mount(nullptr, directory.c_str(), nullptr,
                               MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr));
        };
    };
    const struct {
        const char* label;
        std::function<void()> fault;
        const char* logged;
        std::string conf_after;
        std::string profile_after;
        const char* unmount;
    } cases[] = {
        {"configuration missing", remove(kConf), "3 read syslog-ng.conf failed.", "", profile,
         nullptr},
        {"profile missing", remove(kProfile), "3 read sbin.syslog-ng failed.", conf + kBlock, "",
         nullptr},
        {"profile too large", [] { WriteText(kProfile, std::string(10485761, '}')); },
         "3 read sbin.syslog-ng failed.", conf + kBlock, std::string(10485761, '}'), nullptr},
        {"profile without brace", [] { WriteText(kProfile, kBlock + "text"); }, "3 not find }",
         conf + kBlock, "text", nullptr},
        {"no backup directory", remove(kBackups), "3 backup syslog-ng.conf failed.", conf, profile,
         nullptr},
        {"configuration read-only", read_only("/etc/syslog-ng"), "3 write syslog-ng.conf failed.",
         conf, profile, "/etc/syslog-ng"},
        {"configuration's disk full", full(kConf), "3 write syslog-ng.conf failed.", conf, profile,
         "/etc/syslog-ng"},
        {"profile read-only", read_only("/etc/apparmor.d"), "3 write sbin.syslog-ng failed.",
         conf + kBlock, profile, "/etc/apparmor.d"},
        {"profile's disk full", full(kProfile), "3 write sbin.syslog-ng failed.", conf + kBlock,
         profile, "/etc/apparmor.d"},
        {"server type", [this] { task_->rsyslog_policy.server_type = "tls"; },
         "3 server_type not tcp or udp, tls", conf, profile, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const LogCapture log("module_rsyslog");
        std::filesystem::create_directories(kBackups);
        WriteText(kConf, conf);
        WriteText(kProfile, profile);
        c.fault();
        task_->SyslogServiceManage();
        EXPECT_EQ(1, log.Count(c.logged));
        EXPECT_EQ(1, log.Errors());
        EXPECT_TRUE(c.conf_after == ReadText(kConf));
        EXPECT_TRUE(c.profile_after == ReadText(kProfile));
        if (c.unmount != nullptr) {
            EXPECT_EQ(0, umount(c.unmount));
        }
    }
    EXPECT_EQ("", ReadText("/run/service.log") + ReadText("/run/rcapparmor.log"));
}

TEST_F(Syslogng, BothWrittenRestartsBothServices) {
    task_->SyslogServiceManage();
    EXPECT_EQ("syslog restart\n", ReadText("/run/service.log"));
    EXPECT_EQ(0U, ReadText("/run/rcapparmor.log").find("restart "));
    EXPECT_EQ(1, log_.Count("8 run cmd: rcapparmor restart & service syslog restart"));
    EXPECT_EQ("conf\n" + kBlock, ReadText(kConf));
}

}  // namespace
