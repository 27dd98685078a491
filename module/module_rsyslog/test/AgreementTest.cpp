// What is said of a document on a host, against what the real daemon makes of it once it is
// applied.

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "framework/Engine.h"
#include "module/module_procs/src/ProcsFullTask.h"
#include "module/module_rsyslog/src/RsyslogModule.h"
#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/JsonUtils.h"

namespace {

namespace fs = std::filesystem;
using TestSupport::Await;
using TestSupport::ReadText;
using TestSupport::WriteText;

// UDP ports 5514 and 5515 of an address.
class Receiver {
public:
    explicit Receiver(const std::string& host) {
        for (const int port : {5514, 5515}) {
            sockets_.emplace_back(Poco::Net::SocketAddress(host, static_cast<Poco::UInt16>(port)));
        }
    }
    bool Has(const std::string& piece) {
        for (auto& socket : sockets_) {
            while (socket.poll(Poco::Timespan(0, 0), socket.SELECT_READ)) {
                char buffer[4096];
                const int length = socket.receiveBytes(buffer, sizeof(buffer));
                text_.append(buffer, static_cast<std::size_t>(length));
            }
        }
        return text_.find(piece) != std::string::npos;
    }

private:
    std::vector<Poco::Net::DatagramSocket> sockets_;
    std::string text_;
};

struct Case {
    std::string file = "/var/log/@.log";  // @: the number of the case
    std::string port = "5514";
    std::string server = "127.0.0.1";
    std::string type = "udp";
    std::string another = {};  // file
};

const std::vector<Case> kCases = {
    {},
    {"/var/log/@ a'b$c(d),e#f=g<h>%.log"},
    {"/var/log/@\xc3\xbc{x}.log"},
    {"/var/log/@{.log"},
    {"/var/log/@!.log"},
    {"/var/log/@`.log"},
    {"/var/log/@\".log"},
    {"/var/log/@\\.log"},
    {"/var/log/directory@"},
    {"/var/log/@.log", ""},
    {"/var/log/@.log", "0"},
    {"/var/log/@.log", "65536"},
    {"/var/log/@.log", "abc"},
    {"/var/log/@.log", "5514x"},
    {"/var/log/@.log", "5514;x"},
    {"/var/log/@.log", "005514"},
    {"/var/log/@.log", "5514", "::1"},
    {"/var/log/@.log", "5514", "[::1]"},
    {"/var/log/@.log", "5514", "::1", "udp6"},
    {"/var/log/@.log", "5514", "127.0.0.1:99"},
    {"/var/log/@.log", "5514", "a;b"},
    {"/var/log/@.log", "5514", "no.such.invalid"},
    {"/var/log/@.log", "5514", "127.0.0.1", "udpx"},
    {"/var/log/@.log", "5516", "127.0.0.1", "udp", "/var/log/@.log:5514"},
    {"/var/log/@.log", "5514", "127.0.0.1", "udp", "/var/log/@other.log:5514"},
};

std::string Numbered(std::string text, int number) {
    if (const std::size_t at = text.find('@'); at != std::string::npos) {
        text.replace(at, 1, std::to_string(number));
    }
    return text;
}

void Shell(const std::string& command) {
    EXPECT_EQ(0, std::system(command.c_str())) << command;
}

// A daemon of the host, in the configuration that Debian gives it.
class Host {
public:
    explicit Host(const std::string& daemon)
        : rsyslog_(daemon == "rsyslogd"),
          pid_file_("/run/" + daemon + ".pid"),
          start_(rsyslog_ ? daemon : daemon + " --pidfile=" + pid_file_) {
        Shell("cp -a /etc /tmp/etc.kept");
    }
    ~Host() {
        if (const pid_t pid = Pid(); Runs()) {
            kill(pid, SIGTERM);
            EXPECT_TRUE(Await([pid] { return kill(pid, 0) != 0; }));
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
            std::remove(pid_file_.c_str());
            Shell(start_ + " >/run/daemon.out 2>&1");
            EXPECT_TRUE(Await([this] { return Runs(); }));
        }
    }
    bool Runs() const { return Pid() > 0 && kill(Pid(), 0) == 0; }
    void Apply(const std::string& text) const {
        Engine::RsyslogPolicy policy("rsyslog_feature");
        policy.Parse(text);
        TestSupport::OpenTaskPtr task = TestSupport::NewTask();
        task->rsyslog_policy = policy.Settings();
        task->CheckSyslogNeedRewrite();
        if (rsyslog_) {
            task->RsyslogConfRewrite("/etc/rsyslog.d/");
        } else {
            task->SyslogServiceManage();
        }
    }
    // Whether the host's own logging goes on, and AppArmor has taken the profile.
    bool IsWell(const std::string& mark) const {
        Shell("logger -p user.info '" + mark + "'");
        return Await([&] { return ReadText("/var/log/syslog").find(mark) != std::string::npos; },
                     std::chrono::milliseconds(Runs() ? 1500 : 0)) &&
               ReadText("/run/rcapparmor.log").find(" 1") == std::string::npos;
    }

private:
    pid_t Pid() const { return std::atoi(ReadText(pid_file_).c_str()); }

    const bool rsyslog_;
    const std::string pid_file_;
    const std::string start_;
};

std::string DocumentOf(const Case& c, const std::string& control, int number) {
    Json::Value document(Json::objectValue);
    document["module_name"] = "rsyslog_module";
    document["feature_name"] = "rsyslog_feature";
    Json::Value& content = document["content"];
    content["server_type"] = c.type;
    content["server_balance"] = false;
    content["server"].append(c.server);
    content["log_path"].append(control + ":5515");
    content["log_path"].append(Numbered(c.file, number) + ":" + c.port);
    if (!c.another.empty()) {
        content["log_path"].append(Numbered(c.another, number));
    }
    return SDK::JsonUtils::JsonToString(document);
}

// Whether something says that what is asked for does not happen, or that the daemon suffers.
bool SaysBroken(const std::vector<Framework::Finding>& findings) {
    for (const auto& finding : findings) {
        if (finding.severity == Framework::Severity::kError ||
            finding.advice.find("nothing ") == 0) {
            return true;
        }
    }
    return false;
}

class Agreement : public testing::TestWithParam<const char*> {};

TEST_P(Agreement, WhatIsSaidHappens) {
    auto& engine = TestSupport::TestEngine();
    const Poco::AutoPtr<Framework::Task> procs(new Engine::ProcsFullTask);
    ASSERT_TRUE(engine.StartTask(procs));
    Poco::AutoPtr<Framework::Module> module(static_cast<Framework::Module*>(CreateModule()));
    Receiver ipv4("127.0.0.1");
    Receiver ipv6("::1");
    const TestSupport::LogCapture log("watchpost");
    Host host(GetParam());
    int number = 100 * static_cast<int>(std::string(GetParam()).size());  // new names each time
    for (const Case& c : kCases) {
        const std::string mark = std::to_string(++number) + "!";
        const std::string file = Numbered(c.file, number);
        const std::string control = "/var/log/control" + std::to_string(number);
        const std::string text = DocumentOf(c, control, number);
        SCOPED_TRACE(text);
        if (file.find("directory") != std::string::npos) {
            fs::create_directory(file);
        } else {
            WriteText(file, "line " + mark + "\n");
        }
        WriteText(control, "control " + mark + "\n");
        WriteText("/var/log/" + std::to_string(number) + "other.log", "");
        host.Reset();
        host.Start();

        std::vector<Framework::Finding> findings;
        EXPECT_TRUE(module->JudgePolicy("10001", text, true, findings));
        bool rejected = false;
        for (const auto& verdict : module->PreviewPolicy("10001", text).verdicts) {
            EXPECT_TRUE(verdict.asked) << verdict.words;
            rejected |= !verdict.accepted;
        }
        host.Apply(text);
        const auto arrives = [&](const std::string& line, int patience) {
            return Await([&] { return ipv4.Has(line) || ipv6.Has(line); },
                         std::chrono::milliseconds(host.Runs() ? patience : 0));
        };
        const bool well = host.IsWell("own " + mark);
        const bool control_arrives = arrives("control " + mark, 800);
        const bool broken = !arrives("line " + mark, 400) || !control_arrives || !well;
        std::string said;
        for (const auto& finding : findings) {
            said += Framework::Describe(finding) + "\n";
        }
        EXPECT_EQ(broken, SaysBroken(findings)) << said;
        EXPECT_TRUE(broken || !rejected);
    }
    module->UnInit();
    engine.StopTask("procs_full_task");
}

INSTANTIATE_TEST_SUITE_P(Daemons, Agreement, testing::Values("rsyslogd", "syslog-ng"));

}  // namespace
