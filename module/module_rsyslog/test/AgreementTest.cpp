// What is said of a document on a host, against what the real daemon makes of it once it is
// applied.

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>

#include <csignal>
#include <regex>

#include "module/module_procs/src/ProcsFullTask.h"
#include "module/module_rsyslog/src/RsyslogModule.h"
#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/JsonUtils.h"

namespace {

using namespace TestSupport;

struct Case {
    std::string file = "@.log";  // in /var/log; @: the number of the case
    std::string port = "5514";
    std::string server = "127.0.0.1";
    std::string type = "udp";
    std::string another = {};  // file and its port

    std::string Document(const std::string& control) const {
        Json::Value document(Json::objectValue);
        document["module_name"] = "rsyslog_module";
        document["feature_name"] = "rsyslog_feature";
        Json::Value& content = document["content"];
        content["server_type"] = type;
        content["server_balance"] = false;
        content["server"].append(server);
        content["log_path"].append(control + ":5515");
        content["log_path"].append("/var/log/" + file + ":" + port);
        if (!another.empty()) {
            content["log_path"].append("/var/log/" + another);
        }
        return SDK::JsonUtils::JsonToString(document);
    }
};

std::vector<Case> AllCases() {
    std::vector<Case> cases = {{"@.log", "5514", "::1", "udp6"},
                               {"@.log", "5514", "127.0.0.1", "udpx"},
                               {"@.log", "5516", "127.0.0.1", "udp", "@.log:5514"},
                               {"@.log", "5514", "127.0.0.1", "udp", "@other.log:5514"}};
    for (const auto& file : Split("@.log|@ a'b$c(d),e#f=g<h>%.log|@\xc3\xbc{x}.log|@{.log|@!.log|"
                                  "@`.log|@\".log|@\\.log|directory@")) {
        cases.push_back({file});
    }
    for (const auto& port : Split("|0|65536|abc|5514x|5514;x|005514")) {
        cases.push_back({"@.log", port});
    }
    for (const auto& server : Split("::1|[::1]|127.0.0.1:99|a;b|no.such.invalid")) {
        cases.push_back({"@.log", "5514", server});
    }
    return cases;
}

// A daemon of the host, in the configuration that Debian gives it, and who receives from it.
class Agreement : public testing::TestWithParam<std::string> {
protected:
    Agreement() {
        Shell("cp -a /etc /tmp/etc.kept");
        for (const char* address :
             {"127.0.0.1:5514", "127.0.0.1:5515", "[::1]:5514", "[::1]:5515"}) {
            sockets_.emplace_back(Poco::Net::SocketAddress(address));
        }
    }
    void TearDown() override {
        if (Runs()) {
            kill(Pid(), SIGTERM);
            EXPECT_TRUE(Await([this] { return !Runs(); }));
        }
        Reset();
        Shell("rm -r /tmp/etc.kept");
    }

    // Before each case: nothing of the previous one is left, and the daemon runs.
    void Reset() {
        Shell(
            "cp -a /tmp/etc.kept/syslog-ng/. /etc/syslog-ng; rm -f /run/service.starts.*; "
            "cp -a /tmp/etc.kept/apparmor.d/sbin.syslog-ng /etc/apparmor.d; "
            "rm -f /etc/rsyslog.d/watchpost_rsyslog.conf /run/rcapparmor.log");
    }
    void Start() {
        if (!Runs()) {
            fs::remove(pid_file_);
            Shell(GetParam() + (rsyslog_ ? "" : " --pidfile=" + pid_file_) +
                  " >/run/daemon.out 2>&1");
            EXPECT_TRUE(Await([this] { return Runs(); }));
        }
    }
    pid_t Pid() const { return std::atoi(ReadText(pid_file_).c_str()); }
    bool Runs() const { return Pid() > 0 && kill(Pid(), 0) == 0; }
    void Apply(const std::string& text) const {
        Engine::RsyslogPolicy policy("rsyslog_feature");
        policy.Parse(text);
        OpenTaskPtr task = NewTask();
        task->rsyslog_policy = policy.Settings();
        task->CheckSyslogNeedRewrite();
        rsyslog_ ? task->RsyslogConfRewrite("/etc/rsyslog.d/") : task->SyslogServiceManage();
    }
    // Whether the host's own logging goes on, and AppArmor has taken the profile.
    bool IsWell(const std::string& mark) const {
        Shell("logger -p user.info '" + mark + "'");
        return Await([&] { return ReadText("/var/log/syslog").find(mark) != std::string::npos; },
                     std::chrono::milliseconds(Runs() ? 1500 : 0)) &&
               ReadText("/run/rcapparmor.log").find(" 1") == std::string::npos;
    }
    bool Arrives(const std::string& line, int patience) {
        const auto arrived = [&] {
            for (auto& socket : sockets_) {
                while (socket.poll(Poco::Timespan(0, 0), socket.SELECT_READ)) {
                    char buffer[4096];
                    const int length = socket.receiveBytes(buffer, sizeof(buffer));
                    received_.append(buffer, static_cast<std::size_t>(length));
                }
            }
            return received_.find(line) != std::string::npos;
        };
        return Await(arrived, std::chrono::milliseconds(Runs() ? patience : 0));
    }

private:
    const bool rsyslog_ = GetParam() == "rsyslogd";
    const std::string pid_file_ = "/run/" + GetParam() + ".pid";
    std::vector<Poco::Net::DatagramSocket> sockets_;
    std::string received_;
};

// Whether it says that what is asked for does not happen, or that the daemon suffers.
bool SaysBroken(const Framework::Finding& finding) {
    return finding.severity == Framework::Severity::kError ||
           finding.advice.rfind("nothing ", 0) == 0;
}

TEST_P(Agreement, WhatIsSaidHappens) {
    const Poco::AutoPtr<Framework::Task> procs(new Engine::ProcsFullTask);
    ASSERT_TRUE(TestEngine().StartTask(procs));
    Poco::AutoPtr<Framework::Module> module(static_cast<Framework::Module*>(CreateModule()));
    const LogCapture log("watchpost");
    int cases = 100 * static_cast<int>(GetParam().size());  // new names each time
    for (Case& c : AllCases()) {
        const std::string number = std::to_string(++cases);
        for (std::string* file : {&c.file, &c.another}) {
            *file = std::regex_replace(*file, std::regex("@"), number);
        }
        const std::string control = "/var/log/control" + number;
        const std::string text = c.Document(control);
        SCOPED_TRACE(text);
        if (c.file.find("directory") != std::string::npos) {
            fs::create_directory("/var/log/" + c.file);
        } else {
            WriteText("/var/log/" + c.file, "line " + number + "!\n");
        }
        WriteText(control, "control " + number + "!\n");
        WriteText("/var/log/" + number + "other.log", "");
        Reset();
        Start();

        std::vector<Framework::Finding> findings;
        EXPECT_TRUE(module->JudgePolicy("10001", text, true, findings));
        bool rejected = false;
        for (const auto& verdict : module->PreviewPolicy("10001", text).verdicts) {
            EXPECT_TRUE(verdict.asked) << verdict.words;
            rejected |= !verdict.accepted;
        }
        const std::string off = R"({"enable":false,)" + text.substr(1);
        EXPECT_TRUE(module->PreviewPolicy("10001", off).files.empty());
        Apply(text);
        const bool well = IsWell("own " + number + "!");
        const bool control_arrives = Arrives("control " + number + "!", 800);
        const bool broken = !Arrives("line " + number + "!", 400) || !control_arrives || !well;
        std::string said;
        for (const auto& finding : findings) {
            said += Framework::Describe(finding) + "\n";
        }
        EXPECT_EQ(broken, std::any_of(findings.begin(), findings.end(), SaysBroken)) << said;
        EXPECT_TRUE(broken || !rejected);
    }
    module->UnInit();
    TestEngine().StopTask("procs_full_task");
}

INSTANTIATE_TEST_SUITE_P(Daemons, Agreement, testing::Values("rsyslogd", "syslog-ng"));

}  // namespace
