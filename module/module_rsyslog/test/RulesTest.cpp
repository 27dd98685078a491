// Which files rsyslog writes by its rules, and what comes around again.

#include <csignal>
#include <regex>

#include "module/module_rsyslog/src/SyslogRules.h"
#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using namespace TestSupport;
using Engine::FindReturns;
using Engine::Return;
using Engine::RsyslogRules;

RsyslogRules Read(const std::string& text) {
    WriteText("/tmp/rules.conf", text);
    return RsyslogRules::Read("/tmp/rules.conf");
}

// What each rule takes of local1 at severity debug, as "/file yes@line".
std::string Summary(const RsyslogRules& rules) {
    const char* const kWords[] = {"no", "perhaps", "yes"};
    std::string text;
    for (const auto& rule : rules.files) {
        text += (text.empty() ? "" : " ") + rule.file + " " +
                kWords[static_cast<int>(rule.takes[1])] + "@" + std::to_string(rule.place.line);
    }
    return text;
}

TEST(Rules, AreReadAsTheDaemonDoes) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"& stop\n*.* /c\n", "/c yes@2"},
        {"# *.* /a\n*.*\t-/b;template\n\nlocal0.* /c\n", "/b yes@2 /c no@4"},
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
        EXPECT_EQ(rules, Summary(Read(text))) << text;
    }
}

TEST(Rules, AreReadWhateverTheirLength) {
    std::string text = "*.* ";
    for (int i = 0; i < 200'000; ++i) {
        text += "a.b ";
    }
    const RsyslogRules rules = Read(text + "\n*.* /a\n");
    EXPECT_EQ("/a yes@2", Summary(rules));
    EXPECT_TRUE(rules.whole);
    EXPECT_EQ(0, rules.other_default.line);
    EXPECT_EQ(2, Read("*.* /a\n$DefaultRuleset x\n").other_default.line);
    fs::resize_file("/tmp/rules.conf", 33 << 20);
    EXPECT_FALSE(RsyslogRules::Read("/tmp/rules.conf").whole);
}

TEST(Rules, StandWhereTheyAreIncluded) {
    fs::create_directories("/tmp/d");
    WriteText("/tmp/d/10.conf", "local1.* stop\n");
    WriteText("/tmp/d/20.conf", "*.* /b\n$IncludeConfig /tmp/d/*\nmodule(load=\"imfile\")\n");
    WriteText("/tmp/d/watchpost_rsyslog.conf", "module(load=\"imfile\")\n*.* /ours\n");
    const RsyslogRules rules =
        Read("*.* /a\ninclude(file=\"/tmp/d/*.conf\" mode=\"optional\")\n*.* /c\n");
    ASSERT_LE(3U, rules.files.size());
    EXPECT_EQ("/a yes@1 /b no@1", Summary(rules).substr(0, 16));
    EXPECT_EQ("/c", rules.files.back().file);
    EXPECT_EQ("/tmp/d/20.conf", rules.files[1].place.file);
    EXPECT_EQ("module(load=\"imfile\")", rules.imfile_loads.front().text);
    EXPECT_EQ("local1.* stop", rules.stopped_before[1].text);
    EXPECT_EQ(0, rules.stopped_before[2].line);
}

// Of each file the kind of its return and the line of the rule.
TEST(Rules, ComeAroundAgainOverAnyNumberOfFiles) {
    fs::create_directory("/tmp/target");
    fs::create_symlink("target", "/tmp/link");
    for (const auto& [text, files, expected] :
         {std::tuple("*.* /a\n", "/a", "loops 1"),
          std::tuple("*.* /a\n", "/b|/a", "none 0|loops 1"),
          std::tuple("auth.* /a\n*.* /b\n", "/a", "copied 1"),
          std::tuple("local1.* /b\nlocal2.* /a\n", "/a|/b", "loops 2|loops 1"),
          std::tuple("local1.* /c\nlocal2.* /a\nlocal3.* /b\n", "/a|/b|/c",
                     "loops 2|loops 3|loops 1"),
          std::tuple("local1.* /b\n:msg, contains, \"x\" /a\n", "/a|/b", "perhaps 2|perhaps 1"),
          std::tuple("local1.* /b\n", "/a|/b", "none 0|copied 1"),
          std::tuple("*.* /8\n", "/1|/2|/3|/4|/5|/6|/7|/8",
                     "none 0|none 0|none 0|none 0|none 0|none 0|none 0|none 0"),
          std::tuple("", "/open", "perhaps 0"),
          std::tuple("*.* /var/log/x.log\n", "/var/log/*.log", "loops 1"),
          std::tuple("*.* /tmp/link/x\n", "/tmp/target/x", "loops 1")}) {
        const RsyslogRules rules = Read(text);
        Strings found;
        for (const Return& back : FindReturns(rules, Split(files), {"/open"})) {
            const char* const kinds[] = {"none ", "copied ", "perhaps ", "loops "};
            const int line = back.rule == nullptr ? 0 : back.rule->place.line;
            found.push_back(kinds[back.kind] + std::to_string(line));
        }
        EXPECT_EQ(Split(expected), found) << text << files;
    }
}

// One line of local1 and debug, and where the real daemon puts it: @ is a file of its own.
TEST(Rules, AgreeWithTheRealDaemon) {
    const Strings rules = Split(
        "*.* @|*.info @|*.=debug @|*.!debug @|*.*;local1.none @|local1.!info @|local1.7 @|"
        "local0,local1.* -@|*.*;*.!=debug @|*.*;*.!info @|local1.none;*.* @|*.*;auth,local1.none @|"
        "local1,auth.debug @|LOCAL1.DEBUG @|local1.warn @|mail.*;\\\n local1.debug @|"
        "action(type=\"omfile\"\n file=\"@\")|local1.* { action(type=\"omfile\" file=\"@\") }|"
        "local2.* stop\n*.* @|local1.* @|& stop\n*.* @");
    fs::create_directory("/run/r");
    std::string text =
        "module(load=\"imfile\")\ninput(type=\"imfile\" File=\"/run/in.log\" Tag=\"\" "
        "Severity=\"debug\" Facility=\"local1\")\n";
    for (const std::string& rule : rules) {
        const std::string file = "/run/r/" + std::to_string(text.size());
        text += std::regex_replace(rule, std::regex("@"), file) + "\n";
    }
    WriteText("/run/in.log", "a line\n");
    WriteText("/run/r.conf", text);
    const RsyslogRules read = RsyslogRules::Read("/run/r.conf");
    ASSERT_EQ(rules.size(), read.files.size());
    Shell("rsyslogd -f /run/r.conf -i /run/r.pid 2>/run/r.out");
    const std::string last = read.files[rules.size() - 2].file;
    EXPECT_TRUE(Await([&] { return !ReadText(last).empty(); })) << ReadText("/run/r.out");
    kill(std::atoi(ReadText("/run/r.pid").c_str()), SIGTERM);
    EXPECT_TRUE(Await([] { return ReadText("/run/r.pid").empty(); }));
    for (const auto& rule : read.files) {
        EXPECT_EQ(ReadText(rule.file).empty() ? Engine::Takes::kNo : Engine::Takes::kYes,
                  rule.takes[1])
            << rule.place.text;
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
    fs::create_directories("/tmp/s/conf.d");
    WriteText(conf, "log { source(s); destination(d); };\n# flags(catchall)\n");
    EXPECT_FALSE(Engine::HasCatchAll(conf));
    WriteText("/tmp/s/conf.d/x.conf", "log { destination(d); flags(final, catch-all); };\n");
    EXPECT_TRUE(Engine::HasCatchAll(conf));
}

}  // namespace
