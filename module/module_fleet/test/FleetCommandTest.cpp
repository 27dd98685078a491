#include <gtest/gtest.h>

#include <future>

#include "module/module_fleet/src/HostJudgement.h"
#include "module/module_fleet/test/NatsCluster.h"
#include "sdk/JsonUtils.h"
#include "test/support/AgentProcess.h"

namespace {

using TestSupport::AgentProcess;
using TestSupport::Await;
using TestSupport::NatsCluster;
using TestSupport::WriteText;

TEST(Judgement, OfAHostIsThatOfWhatMattersMost) {
    const Fleet::Revisions revisions = {{"all", 3}, {"group.web", 5}, {"group.empty", 7}};
    const auto host = [](const std::string& policy, const std::string& more) {
        return R"({"policy":{"keys":["host.a","group.web","all"])" + policy +
               R"(},"conditions":[{"subject":"s","text":"bad","good":false}],"refused":[])" + more +
               "}";
    };
    const std::string refused =
        R"(,"refused":{"source":"host.a","findings":[{"key":"k","problem":"p"}]})";
    const struct {
        std::string told;
        int age;
        const char* state;
        const char* why;
    } cases[] = {
        {host(R"(,"source":"group.web","revision":5)", ""), 90, "wrong", "s: bad"},
        {host(R"(,"source":"group.web","revision":5)", ""), 91, "silent", ""},
        {host(R"(,"source":"group.web","revision":5)", R"(,"heartbeat_s":100)"), 300, "wrong",
         "s: bad"},
        {host(R"(,"source":"group.web","revision":4)", ""), 1, "differs",
         "does not follow group.web revision 5 yet"},
        {host(R"(,"source":"all","revision":3)", ""), 1, "differs",
         "does not follow group.web revision 5 yet"},
        {host("", ""), 1, "differs", "does not follow group.web revision 5 yet"},
        {host(R"(,"source":"all","revision":3)" + refused, ""), 1, "refused", "host.a: k p"},
        {R"({"policy":{"keys":["host.a"],"source":"host.a","revision":2},"conditions":[],)"
         R"("refused":[]})",
         1, "differs", "follows host.a, which is no more"},
        {R"({"policy":{"keys":["host.a"]},"conditions":[],"refused":[]})", 1, "well", ""},
        {R"({"policy":{"keys":[]},"conditions":[],"refused":[{"key":"x.json","why":"no"}]})", 1,
         "refused", "x.json: no"},
        // What nobody but an enemy writes.
        {"{}", 1, "wrong", "tells what no agent does"},
        {R"({"policy":[],"conditions":[],"refused":[]})", 1, "wrong", "tells what no agent does"},
        {R"({"policy":{"keys":[3,{}],"refused":{"findings":[7]}},"conditions":[],"refused":[]})", 1,
         "refused", "a policy:  "},
        {R"({"policy":{"keys":[{}],"source":[]},"conditions":[4],"refused":[]})", 1, "wrong", ": "},
        {R"({"policy":{"keys":[],"revision":[]},"conditions":[],"refused":[[]]})", 1, "refused",
         "a policy: "},
    };
    for (const auto& c : cases) {
        Json::Value told;
        ASSERT_EQ(0, SDK::JsonUtils::ParseJsonStr(c.told.data(), c.told.size(), told)) << c.told;
        const Fleet::Judgement judgement = Fleet::JudgeHost(told, c.age, revisions);
        EXPECT_STREQ(c.state, judgement.state.c_str()) << c.told;
        EXPECT_STREQ(c.why, judgement.why.c_str()) << c.told;
    }
}

struct Outcome {
    int status;
    std::string output;  // errors included
};

Outcome RunFleet(const std::string& arguments) {
    const std::filesystem::path bin = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::string command =
        "set -o pipefail; timeout 60 " + bin.string() + "/watchpost fleet " + arguments + " 2>&1";
    FILE* pipe = popen(("bash -c '" + command + "'").c_str(), "r");
    Outcome outcome{-1, ""};
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
        outcome.output += static_cast<char>(c);
    }
    outcome.status = WEXITSTATUS(pclose(pipe));
    return outcome;
}

void Expect(int status, const std::string& output, const std::string& arguments) {
    const Outcome outcome = RunFleet(arguments);
    EXPECT_EQ(status, outcome.status) << arguments << '\n' << outcome.output;
    EXPECT_NE(std::string::npos, outcome.output.find(output)) << arguments << '\n'
                                                              << outcome.output;
}

std::string Report(int number) {
    return R"({"content":{"n":1},"id":"a.b-1-)" + std::to_string(number) +
           R"(","time":"t","type":"x)" + std::to_string(number % 2) + "\"}\n";
}

TEST(Command, DoesWhatItSaysAndTellsWhyNot) {
    NatsCluster cluster;
    ASSERT_TRUE(cluster.IsReady());
    std::filesystem::create_directories(AgentProcess::Path("conf"));
    WriteText(AgentProcess::Path("conf/watchpost.properties"),
              "fleet.servers = " + cluster.Urls() + "\nfleet.name = a.b\nfleet.groups = web\n");
    AgentProcess agent;
    const std::string policy =
        R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature","content":{}})";
    WriteText("/tmp/good", policy);
    WriteText("/tmp/bad", R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature",)"
                          R"("content":{"server":["a\nb"],"log_path":["/a:1"]}})");
    WriteText("/tmp/alone.properties", "log.level = error\n");
    const std::string reports = AgentProcess::Path("log/watchpost_report.jsonl");
    WriteText(reports, Report(1) + Report(2));
    EXPECT_TRUE(Await([&] { return cluster.Messages() == 2; }));
    const struct {
        const char* arguments;
        int status;
        std::string output;
    } cases[] = {
        {"", 64, "a command is missing"},
        {"fly", 64, "unknown command fleet fly"},
        {"hosts --jsn", 64, "--jsn"},
        {"put all", 64, "put takes 2 arguments, not 1"},
        {"put al /tmp/good", 64, "KEY is all, group.NAME or host.NAME, not al"},
        {"put host. /tmp/good", 64, "KEY is all"},
        {"put all /tmp/none", 66, "/tmp/none: No such file or directory"},
        {"put all /tmp/bad", 65, "The policy is not put.\n"},
        {"init --replicas=0", 64, "a number from 1 to 5, not 0"},
        {"hosts --config=/tmp/alone.properties", 78, "fleet.servers is not in"},
        {"get host.a.b", 1, "there is no policy for host.a.b"},
        {"remove host.a.b", 1, "there is no policy for host.a.b"},
        {"put host.a.b /tmp/good", 0, "host.a.b: revision 1\n"},
        {"get host.a.b", 0, policy},
        {"remove host.a.b", 0, "host.a.b: revision 2\n"},
        {"get host.a.b", 1, "there is no policy for host.a.b"},
        {"put group.web /tmp/good", 0, "group.web: revision 3\n"},
        {"forget other", 1, "there is no host other"},
        {"reports --json", 0, Report(1) + Report(2)},
        {"reports --type=x0", 0, "t a.b x0 {\"n\":1}\n"},
        {"reports --since=2999-01-01T00:00:00Z --type=x1 | wc -c", 0, "0\n"},
        {"reports --since=1899-01-01T00:00:00Z --type=x1 | wc -l", 0, "1\n"},
        {"reports --since=2020-01-01T00:00:00+01:00 --host=a.b --type=x0 | wc -l", 0, "1\n"},
        {"reports --host=other | wc -c", 0, "0\n"},
        {"--help", 0, "Commands and what they take:"},
        {"reports --since=2026-11-22", 64, "--since is a time as"},
        {"reports --since=2026-13-22T00:00:00Z", 64, "--since is a time as"},
    };
    for (const auto& c : cases) {
        Expect(c.status, c.output, c.arguments);
    }
    // There is no daemon in the sandbox.
    EXPECT_TRUE(Await([] {
        return RunFleet("hosts").output.find(
                   "\na.b                     wrong    group.web               3         0.1.0") !=
               std::string::npos;
    })) << RunFleet("hosts").output;
    Expect(1, " s ago\n    syslog daemon: does not run\n", "hosts");

    // A host may write what it likes, about itself.
    ASSERT_TRUE(cluster.Eventually([&](natsConnection*) {
        const std::string evil = R"({"host":"a.b","policy":{"source":"\u001b[31m\nx"}})";
        Fleet::Nats::Check(
            js_Publish(nullptr, cluster.Stream(), Fleet::SubjectOfHost("e\nvil").c_str(),
                       evil.data(), static_cast<int>(evil.size()), nullptr, nullptr),
            "");
    }));
    for (const char* const evil : {"[\33]", "[3]"}) {
        ASSERT_TRUE(cluster.Eventually([&](natsConnection*) {
            Fleet::Nats::Check(js_Publish(nullptr, cluster.Stream(), "watchpost.report.evil.y",
                                          evil, 3, nullptr, nullptr),
                               "");
        }));
    }
    Expect(0, "[\\x1B]\n[3]\n", "reports --type=y");
    Expect(1, "\ne\\nvil                  wrong    \\x1B[31m\\nx ", "hosts");
    Expect(1, R"("state":"wrong","why":"tells what no agent does"})", "hosts --json");
    Expect(0, "", "forget \"$(printf \"e\\nvil\")\"");
    EXPECT_EQ(std::string::npos, RunFleet("hosts").output.find("vil"));

    // Through the death of all servers, to the end of its reader.
    auto followed = std::async(std::launch::async, [] {
        return RunFleet("reports --follow --type=x1 --json | head -n 2");
    });
    std::this_thread::sleep_for(std::chrono::seconds(2));
    for (int i = 0; i < NatsCluster::kServers; ++i) {
        cluster.Kill(i);
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    for (int i = 0; i < NatsCluster::kServers; ++i) {
        cluster.Start(i);
    }
    std::ofstream(reports, std::ios::app) << Report(3);
    const Outcome outcome = followed.get();
    EXPECT_EQ(Report(1) + Report(3), outcome.output);
    EXPECT_NE(124, outcome.status);

    ASSERT_TRUE(cluster.Eventually([&](natsConnection*) {
        Fleet::Nats::Check(js_DeleteStream(cluster.Stream(), Fleet::kHostStream, nullptr, nullptr),
                           "");
    }));
    Expect(69, "has watchpost fleet init been run?", "hosts");
    Expect(0, "of each bucket: 3.", "init");
    Expect(0, "HOST", "hosts");
    EXPECT_EQ(0, agent.Stop());
}

}  // namespace
