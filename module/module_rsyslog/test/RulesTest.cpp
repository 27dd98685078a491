// Which files rsyslog writes by its rules, and what comes around again.

#include <gtest/gtest.h>

#include <filesystem>

#include "module/module_rsyslog/src/SyslogRules.h"
#include "test/support/TestSupport.h"

namespace {

using Engine::FileRule;
using Engine::FindReturns;
using Engine::Return;
using Engine::RsyslogRules;
using Engine::Takes;
using TestSupport::Await;
using TestSupport::ReadText;
using TestSupport::WriteText;
using Strings = std::vector<std::string>;

// What each rule takes of local1 at severity debug, as "/file yes@line".
std::string Summary(const RsyslogRules& rules) {
    const char* const kWords[] = {"no", "perhaps", "yes"};
    std::string text;
    for (const FileRule& rule : rules.files) {
        text += (text.empty() ? "" : " ") + rule.file + " " +
                kWords[static_cast<int>(rule.takes[1])] + "@" + std::to_string(rule.place.line);
    }
    return text;
}

TEST(Rules, AreReadAsTheDaemonDoes) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"# *.* /a\n*.*\t-/b;template\n\nlocal0.* /c\n", "/b yes@2 /c no@4"},
        {"*.*;auth,local1.none /a\nlocal1,auth.debug /b\nlocal1.7 /c\nLOCAL1.DEBUG /d\n",
         "/a no@1 /b yes@2 /c yes@3 /d yes@4"},
        {"*.info /a\n*.=debug /b\n*.!debug /c\n*.*;*.!=debug /d\n*.*;*.!info /e\nlocal1.warn /f\n",
         "/a no@1 /b yes@2 /c no@3 /d no@4 /e yes@5 /f no@6"},
        {"local1.none;*.* /a\nmail.*;\\\n  local1.* /b\n", "/a yes@1 /b yes@2"},
        {"local1.* /a\n& /b\n& stop\n*.* /c\n", "/a yes@1 /b yes@2 /c no@4"},
        {"local1.* ~\n*.* /c\n", "/c no@2"},
        {"local2.* stop\n*.* /c\n", "/c yes@2"},
        {"stop\n*.* /c\n", "/c no@2"},
        {":msg, contains, \"x/y\" /a\n& stop\n*.* /b\n", "/a perhaps@1 /b perhaps@3"},
        {"if $syslogfacility-text == 'local1' then stop\n*.* /b\n", "/b perhaps@2"},
        {"if ($msg contains 'then /x')\nthen {\n  action(type=\"omfile\"\n    File=\"/a\")\n  "
         "stop\n}\n"
         "else /c\n*.* /b\n",
         "/a perhaps@1 /c perhaps@1 /b perhaps@8"},
        {"action(type=\"omfile\" file=\"/a\")\naction(type=\"omfwd\" file=\"/b\")\n"
         "*.* action(type=\"omfile\" dynaFile=\"t\")\nlocal1.* { action(type=\"omfile\" "
         "file=\"/c\") stop }\n*.* /d\n",
         "/a yes@1 /c yes@4 /d no@5"},
        {"ruleset(name=\"x\") {\n  *.* /a\n}\n$RuleSet y\n*.* /b\n$RuleSet "
         "RSYSLOG_DefaultRuleset\n*.* /c\n",
         "/c yes@7"},
        {"ruleset(name=\"x\") {\n  *.* /a\n  local1.none /b\n}\nif $msg == 'x' then call x\n*.* "
         "|/c\n",
         "/c yes@6 /a perhaps@1 /b no@1"},
        {"/* *.* /a\n*/ *.* /b # c\n!prog\n*.* /d\n!*\n*.* /e\n", "/b yes@2 /d yes@4 /e yes@6"},
        {"*.* action (type=\"omfile\" file=\"/a\")\n*.* :omfile:/b;tpl\n", "/a yes@1 /b yes@2"},
        {"*.* ACTION (TYPE=\"omfile\" name=\"a)\" File=\"/a\")\nIF $msg == 'x' THEN STOP\n*.* /b\n",
         "/a yes@1 /b perhaps@3"},
        {"*.* ?later\n$template later,\"/a/%HOSTNAME%.log\"\nlocal1.none -?t;x\n"
         "*.* action(type=\"omfile\" dynaFile=\"t\")\ntemplate(name=\"t\" type=\"string\" "
         "string=\"/b%x%\")\n$outchannel o, /c, 10\n*.* :omfile:$o\n",
         "/a/*.log perhaps@1 /b* no@3 /b* perhaps@4 /c perhaps@7"},
        {"*.* @server\n*.* |pipe\n*.emerg :omusrmsg:*\n*.* root\n*.* ?dyna\n$FileOwner /x\n", ""},
        {"$Include /x\n*.\n.\n;\n*.* \n\"\n(((\n*.* /a\n", "/a no@7"},
    };
    for (const auto& [text, rules] : cases) {
        WriteText("/tmp/rules.conf", text);
        EXPECT_EQ(rules, Summary(RsyslogRules::Read("/tmp/rules.conf"))) << text;
    }
}

TEST(Rules, AreReadWhateverTheirLength) {
    std::string text = "*.* ";
    for (int i = 0; i < 200'000; ++i) {
        text += "a.b ";
    }
    WriteText("/tmp/rules.conf", text + "\n*.* /a\n");
    const RsyslogRules rules = RsyslogRules::Read("/tmp/rules.conf");
    EXPECT_EQ("/a yes@2", Summary(rules));
    EXPECT_TRUE(rules.whole);
    EXPECT_EQ(0, rules.other_default.line);
    WriteText("/tmp/rules.conf", "*.* /a\n$DefaultRuleset x\n");
    EXPECT_EQ(2, RsyslogRules::Read("/tmp/rules.conf").other_default.line);
    std::filesystem::resize_file("/tmp/rules.conf", 33 << 20);
    EXPECT_FALSE(RsyslogRules::Read("/tmp/rules.conf").whole);
}

TEST(Rules, StandWhereTheyAreIncluded) {
    std::filesystem::create_directories("/tmp/d");
    WriteText("/tmp/d/10.conf", "local1.* stop\n");
    WriteText("/tmp/d/20.conf", "*.* /b\n$IncludeConfig /tmp/d/*\nmodule(load=\"imfile\")\n");
    WriteText("/tmp/d/watchpost_rsyslog.conf", "module(load=\"imfile\")\n*.* /ours\n");
    WriteText("/tmp/rules.conf",
              "*.* /a\ninclude(file=\"/tmp/d/*.conf\" mode=\"optional\")\n*.* /c\n");
    const RsyslogRules rules = RsyslogRules::Read("/tmp/rules.conf");
    ASSERT_LE(3U, rules.files.size());
    EXPECT_EQ("/a yes@1 /b no@1", Summary(rules).substr(0, 16));
    EXPECT_EQ("/c", rules.files.back().file);
    EXPECT_EQ("/tmp/d/20.conf", rules.files[1].place.file);
    EXPECT_EQ("module(load=\"imfile\")", rules.imfile_loads.front().text);
    EXPECT_EQ("local1.* stop", rules.stopped_before[1].text);
    EXPECT_EQ(0, rules.stopped_before[2].line);
    std::filesystem::remove_all("/tmp/d");
}

TEST(Rules, ComeAroundAgainOverAnyNumberOfFiles) {
    const struct {
        const char* rules;
        Strings files;
        std::vector<Return::Kind> kinds;
        std::vector<int> lines;
    } cases[] = {
        {"*.* /a\n", {"/a"}, {Return::kLoops}, {1}},
        {"*.* /a\n", {"/b", "/a"}, {Return::kNone, Return::kLoops}, {0, 1}},
        {"auth.* /a\n*.* /b\n", {"/a"}, {Return::kCopied}, {1}},
        {"local1.* /b\nlocal2.* /a\n", {"/a", "/b"}, {Return::kLoops, Return::kLoops}, {2, 1}},
        {"local1.* /b\n:msg, contains, \"x\" /a\n",
         {"/a", "/b"},
         {Return::kPerhaps, Return::kPerhaps},
         {2, 1}},
        {"local1.* /b\n", {"/a", "/b"}, {Return::kNone, Return::kCopied}, {0, 1}},
        {"*.* /8\n",
         {"/1", "/2", "/3", "/4", "/5", "/6", "/7", "/8"},
         std::vector<Return::Kind>(8, Return::kNone),
         std::vector<int>(8, 0)},
        {"", {"/open"}, {Return::kPerhaps}, {0}},
        {"*.* /var/log/x.log\n", {"/var/log/*.log"}, {Return::kLoops}, {1}},
        {"*.* /tmp/link/x\n", {"/tmp/target/x"}, {Return::kLoops}, {1}},
    };
    std::filesystem::create_directory("/tmp/target");
    std::filesystem::create_symlink("target", "/tmp/link");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rules);
        WriteText("/tmp/rules.conf", c.rules);
        const RsyslogRules rules = RsyslogRules::Read("/tmp/rules.conf");
        const std::vector<Return> returns = FindReturns(rules, c.files, {"/open"});
        ASSERT_EQ(c.kinds.size(), returns.size());
        for (std::size_t i = 0; i < returns.size(); ++i) {
            EXPECT_EQ(c.kinds[i], returns[i].kind) << c.files[i];
            EXPECT_EQ(c.lines[i], returns[i].rule == nullptr ? 0 : returns[i].rule->place.line);
        }
    }
}

TEST(Rules, OfDebianLoopCopyOrLeave) {
    const RsyslogRules rules = RsyslogRules::Read("/etc/rsyslog.conf");
    const Strings files = {"/var/log/app.log", "/var/log/auth.log", "/var/log/syslog"};
    const std::vector<Return> returns = FindReturns(rules, files, {});
    EXPECT_EQ(Return::kNone, returns[0].kind);
    EXPECT_EQ(Return::kCopied, returns[1].kind);
    ASSERT_EQ(Return::kLoops, returns[2].kind);
    EXPECT_EQ("*.*;auth,authpriv.none\t\t-/var/log/syslog", returns[2].rule->place.text);
}

// One line of local1 and debug, and where the real daemon puts it.
TEST(Rules, AgreeWithTheRealDaemon) {
    const std::string rules =
        "*.* /run/r/1\n*.info /run/r/2\n*.=debug /run/r/3\n*.!debug /run/r/4\n*.*;local1.none "
        "/run/r/5\n"
        "local1.!info /run/r/6\nlocal0,local1.* -/run/r/7\nlocal1.7 /run/r/8\n*.*;*.!=debug "
        "/run/r/9\n"
        "*.*;*.!info /run/r/10\nlocal1.none;*.* /run/r/11\nmail.*;\\\n local1.debug /run/r/12\n"
        "action(type=\"omfile\"\n file=\"/run/r/13\")\nlocal1.* { action(type=\"omfile\" "
        "file=\"/run/r/14\") }\n"
        "local2.* stop\n*.* /run/r/15\nlocal1.* /run/r/16\n& stop\n*.* /run/r/17\n";
    std::filesystem::create_directory("/run/r");
    WriteText("/run/in.log", "a line\n");
    WriteText("/run/r.conf",
              "module(load=\"imfile\")\ninput(type=\"imfile\" File=\"/run/in.log\" Tag=\"\" "
              "Severity=\"debug\" Facility=\"local1\")\n" +
                  rules + "\n");
    ASSERT_EQ(0, std::system("rsyslogd -f /run/r.conf -i /run/r.pid 2>/run/r.out"));
    EXPECT_TRUE(Await([] { return !ReadText("/run/r/16").empty(); })) << ReadText("/run/r.out");
    kill(std::atoi(ReadText("/run/r.pid").c_str()), SIGTERM);
    EXPECT_TRUE(Await([] { return ReadText("/run/r.pid").empty(); }));
    const RsyslogRules read = RsyslogRules::Read("/run/r.conf");
    EXPECT_EQ(17U, read.files.size());
    for (const FileRule& rule : read.files) {
        EXPECT_EQ(ReadText(rule.file).empty() ? Takes::kNo : Takes::kYes, rule.takes[1])
            << rule.file;
    }
}

TEST(Rules, FilesOpenForWritingAreThoseOfTheProcess) {
    std::ofstream written("/tmp/written");
    const std::ifstream read_only("/etc/passwd");
    const std::set<std::string> files = Engine::FilesWrittenBy(getpid());
    EXPECT_EQ(1U, files.count("/tmp/written"));
    EXPECT_EQ(0U, files.count("/etc/passwd"));
    EXPECT_TRUE(Engine::FilesWrittenBy(0x7fffffff).empty());
}

TEST(Rules, CatchAllOfSyslogng) {
    const std::string conf = "/tmp/s/syslog-ng.conf";
    std::filesystem::create_directories("/tmp/s/conf.d");
    WriteText(conf, "log { source(s); destination(d); };\n# flags(catchall)\n");
    EXPECT_FALSE(Engine::HasCatchAll(conf));
    WriteText("/tmp/s/conf.d/x.conf", "log { destination(d); flags(final, catch-all); };\n");
    EXPECT_TRUE(Engine::HasCatchAll(conf));
}

}  // namespace
