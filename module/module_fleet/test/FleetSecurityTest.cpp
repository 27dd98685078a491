#include <gtest/gtest.h>

#include <cstdlib>

#include "module/module_fleet/test/NatsCluster.h"
#include "test/support/AgentProcess.h"

// The servers' configuration that is shipped.
namespace {

using TestSupport::AgentProcess;
using TestSupport::Await;
using TestSupport::ReadText;
using TestSupport::WriteText;

const char* const kServers = "tls://localhost:4221";
const char* const kPolicy =
    R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature","content":{}})";
const std::string kEvil =
    R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature","enable":false})";

void Shell(const std::string& command) {
    ASSERT_EQ(0, std::system(("{ " + command + "; } >/tmp/out 2>&1").c_str()))
        << command << '\n'
        << ReadText("/tmp/out");
}

// An authority's certificate, and others that it has signed, as /etc/nats/NAME.crt and .key.
void MakeAuthority(const std::string& authority) {
    Shell(
        "cd /etc/nats && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
        "-days 2 -subj /CN=" +
        authority + " -keyout " + authority + ".key -out " + authority + ".crt");
}
void MakeCertificate(const std::string& authority, const std::string& name,
                     const std::string& file) {
    WriteText("/etc/nats/names", "subjectAltName=DNS:" + name);
    Shell(
        "cd /etc/nats && openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "
        "/O=fleet -keyout " +
        file + ".key -out request && openssl x509 -req -in request -CA " + authority +
        ".crt -CAkey " + authority + ".key -CAcreateserial -days 2 -extfile names -out " + file +
        ".crt");
}

void Configure(const std::string& name, const std::string& authority) {
    const std::string path = "/etc/nats/";
    std::filesystem::create_directories(AgentProcess::Path("conf"));
    WriteText(AgentProcess::Path("conf/watchpost.properties"),
              std::string("fleet.servers = ") + kServers + "\nfleet.groups = web\nfleet.name = " +
                  name + "\nfleet.tls.ca = " + path + authority + ".crt\nfleet.tls.cert = " + path +
                  name + ".crt\nfleet.tls.key = " + path + name + ".key\n");
}

Fleet::Settings As(const std::string& name, const std::string& certificate) {
    const std::string path = "/etc/nats/";
    return {{kServers},
            name,
            {},
            path + "ca.crt",
            certificate.empty() ? "" : path + certificate + ".crt",
            certificate.empty() ? "" : path + certificate + ".key",
            ""};
}

TEST(Security, AHostReachesItsOwnAndNothingOfAnothers) {
    std::filesystem::create_directories("/etc/nats");
    MakeAuthority("ca");
    MakeAuthority("strange");
    MakeAuthority("route-ca");
    MakeCertificate("ca", "localhost", "server");
    MakeCertificate("route-ca", "localhost", "route");
    for (const std::string name : {"fleet-admin", "a.b", "other"}) {
        MakeCertificate("ca", name, name);
    }
    const std::string packaging = FLEET_PACKAGING;
    Shell("cd /etc/nats && printf 'a.b web\\nother # of none' | " + packaging +
          "/users >users.conf");
    // On this machine, and beside them one that vouches for itself with what a host has.
    Shell(
        "cd /etc/nats && for n in 1 2 3 4; do sed -e s/s1$/s$n/ -e s/:4222/:422$n/ "
        "-e 's/\\(0.0.0.0:\\)6222/\\1622'$n/ -e s#/var/lib#/tmp/$n# "
        "-e 's#s\\([123]\\):6222#localhost:622\\1#g' " +
        packaging +
        "/fleet.conf >s$n.conf; done; sed -i s#/route#/other# s4.conf; cat ca.crt route-ca.crt "
        ">other-ca.crt; "
        "for n in 1 2 3 4; do nats-server -c s$n.conf -l $n.log & echo $! >>pids; done");

    Fleet::Nats::Connection admin;
    ASSERT_TRUE(Await([&] {
        try {
            admin = Fleet::Connect(As("fleet-admin", "fleet-admin"));
            Fleet::InitFleet(admin.get(), 3);
            return true;
        } catch (const Poco::Exception&) {
            return false;
        }
    })) << ReadText("/etc/nats/1.log");
    jsCtx* made = nullptr;
    natsConnection_JetStream(&made, admin.get(), nullptr);
    const Fleet::Nats::JetStream stream(made);
    const auto put = [](jsCtx* context, const std::string& subject, const std::string& text,
                        int milliseconds = 10000) {
        jsPubOptions options;
        jsPubOptions_Init(&options);
        options.MaxWait = milliseconds;
        return js_Publish(nullptr, context, subject.c_str(), text.data(),
                          static_cast<int>(text.size()), &options, nullptr);
    };
    const auto last = [&](const char* name, const std::string& subject) -> std::string {
        natsMsg* found = nullptr;
        js_GetLastMsg(&found, made, name, subject.c_str(), nullptr, nullptr);
        const Fleet::Nats::Msg message(found);
        return found == nullptr ? "" : Fleet::Nats::Data(found);
    };
    const std::string report = R"({"type":"x","id":"a.b-1-1"})";
    const std::string subject = "watchpost.report.a=2Eb.x";

    Configure("a.b", "strange");
    {
        // It does not speak with servers that another authority vouches for.
        AgentProcess agent;
        EXPECT_TRUE(AgentProcess::AwaitLog("fleet: I/O error: no connection"));
        WriteText(AgentProcess::Path("log/watchpost_report.jsonl"), report + "\n");
        EXPECT_EQ(0, agent.Stop());
        EXPECT_EQ("", last(Fleet::kHostStream, Fleet::SubjectOfHost("a.b")));
        Configure("a.b", "ca");
        AgentProcess another;
        EXPECT_TRUE(Await([&] { return last(Fleet::kReportStream, subject) == report; }));
        for (const char* key : {"all", "group.web", "host.a=2Eb"}) {
            EXPECT_EQ(NATS_OK, put(made, Fleet::SubjectOfPolicy(key), kPolicy)) << key;
            EXPECT_TRUE(Await([&] {
                return last(Fleet::kHostStream, Fleet::SubjectOfHost("a.b"))
                           .find(std::string("\"source\":\"") + key) != std::string::npos;
            })) << key;
        }
        EXPECT_EQ(0, another.Stop());
        // What the stream holds it may ask.
        std::filesystem::remove(AgentProcess::Path("log/watchpost_fleet.json"));
        AgentProcess third;
        EXPECT_TRUE(Await([] {
            return std::filesystem::exists(AgentProcess::Path("log/watchpost_fleet.json"));
        }));
        EXPECT_EQ(0, third.Stop());
    }
    EXPECT_THROW(Fleet::Connect(As("other", "")), Poco::IOException);

    const TestSupport::LogCapture heard("watchpost");
    const Fleet::Nats::Connection other = Fleet::Connect(As("other", "other"));
    jsCtx* context = nullptr;
    natsConnection_JetStream(&context, other.get(), nullptr);
    const Fleet::Nats::JetStream owned(context);
    EXPECT_EQ(NATS_OK, put(context, "watchpost.report.other.x", "own"));
    EXPECT_EQ(NATS_OK, put(context, Fleet::SubjectOfHost("other"), "own"));
    const std::string state = last(Fleet::kHostStream, Fleet::SubjectOfHost("a.b"));
    for (const std::string& forbidden :
         {subject, Fleet::SubjectOfHost("a.b"), Fleet::SubjectOfPolicy("all"),
          Fleet::SubjectOfPolicy("host.other"), std::string("watchpost.policy.host.a=2Eb")}) {
        EXPECT_NE(NATS_OK, put(context, forbidden, "evil", 300)) << forbidden;
    }
    EXPECT_EQ(5, heard.Holding("3 fleet: the servers refuse: "));
    // One for all the others.
    natsMsg* rollup = nullptr;
    natsMsg_Create(&rollup, Fleet::SubjectOfHost("other").c_str(), nullptr, "evil", 4);
    const Fleet::Nats::Msg owned_rollup(rollup);
    natsMsgHeader_Set(rollup, "Nats-Rollup", "all");
    EXPECT_NE(NATS_OK, js_PublishMsg(nullptr, context, rollup, nullptr, nullptr));
    EXPECT_EQ(report, last(Fleet::kReportStream, subject));
    EXPECT_EQ(state, last(Fleet::kHostStream, Fleet::SubjectOfHost("a.b")));
    EXPECT_EQ(kPolicy, last(Fleet::kPolicyStream, Fleet::SubjectOfPolicy("all")));

    // Requests that would show what is another's, and one that is its own.
    const std::string get = "$JS.API.DIRECT.GET.KV_watchpost_policies.";
    const std::string reader = "$JS.API.CONSUMER.CREATE.watchpost_reports.report-";
    const struct {
        std::string subject, body;
        bool answered;
    } requests[] = {
        {get + Fleet::SubjectOfPolicy("all"), "", true},
        {get + Fleet::SubjectOfPolicy("host.a=2Eb"), "", false},
        {get + Fleet::SubjectOfPolicy("group.web"), "", false},
        {"$JS.API.DIRECT.GET.KV_watchpost_policies", R"({"seq":1})", false},
        {"$JS.API.STREAM.MSG.GET.watchpost_reports", R"({"seq":1})", false},
        {reader + "other.watchpost.report.a=2Eb.>", "{}", false},
        {reader + "a=2Eb.watchpost.report.a=2Eb.>", "{}", false},
        {"$JS.API.STREAM.DELETE.watchpost_reports", "", false},
        {"$JS.API.STREAM.INFO.watchpost_reports", "", false},
    };
    for (const auto& request : requests) {
        natsMsg* answer = nullptr;
        const natsStatus status =
            natsConnection_RequestString(&answer, other.get(), request.subject.c_str(),
                                         request.body.c_str(), request.answered ? 10000 : 300);
        const Fleet::Nats::Msg message(answer);
        EXPECT_EQ(request.answered, status == NATS_OK) << request.subject;
    }
    // The answer to what it may ask, sent to where others' things lie: its own report, for
    // instance.
    EXPECT_EQ(NATS_OK, put(context, "watchpost.report.other.x", kEvil));
    for (const std::string& target :
         {subject, Fleet::SubjectOfHost("a.b"), Fleet::SubjectOfPolicy("all")}) {
        for (const char* const asked :
             {"$JS.API.DIRECT.GET.watchpost_reports.watchpost.report.other.x",
              "watchpost.report.other.x"}) {
            EXPECT_EQ(NATS_OK, natsConnection_PublishRequestString(other.get(), asked,
                                                                   target.c_str(), kEvil.c_str()));
        }
    }
    EXPECT_EQ(NATS_OK, put(context, "watchpost.report.other.x", "own"));
    EXPECT_EQ(report, last(Fleet::kReportStream, subject));
    EXPECT_EQ(state, last(Fleet::kHostStream, Fleet::SubjectOfHost("a.b")));
    EXPECT_EQ(kPolicy, last(Fleet::kPolicyStream, Fleet::SubjectOfPolicy("all")));

    // Its own reports, delivered to where others' things lie: a bucket takes nothing of the kind,
    // and a host that hears so of a policy looks for itself.
    Configure("a.b", "ca");
    AgentProcess agent;
    const auto told = [&] { return last(Fleet::kHostStream, Fleet::SubjectOfHost("a.b")); };
    EXPECT_TRUE(Await([&] { return told() != state; }));
    natsMsg* evil = nullptr;
    natsMsg_Create(&evil, "watchpost.report.other.x", nullptr, kEvil.data(),
                   static_cast<int>(kEvil.size()));
    const Fleet::Nats::Msg owned_evil(evil);
    natsMsgHeader_Set(evil, JSSequence, "1000");
    EXPECT_EQ(NATS_OK, js_PublishMsg(nullptr, context, evil, nullptr, nullptr));
    for (const std::string& target :
         {Fleet::SubjectOfHost("a.b"), Fleet::SubjectOfPolicy("all"),
          Fleet::SubjectOfPolicy("host.a=2Eb"), std::string("watchpost.policy.host.a=2Eb")}) {
        const Fleet::Nats::Subscription seen = Fleet::Nats::Subscribe(admin.get(), target);
        EXPECT_EQ(NATS_OK, natsConnection_Flush(admin.get()));
        natsMsg* answer = nullptr;
        natsConnection_RequestString(&answer, other.get(),
                                     "$JS.API.CONSUMER.DELETE.watchpost_reports.report-other", "",
                                     1000);
        natsMsg_Destroy(answer);
        natsConnection_PublishString(
            other.get(), (reader + "other.watchpost.report.other.>").c_str(),
            (R"({"stream_name":"watchpost_reports","config":{"name":"report-other",)"
             R"("filter_subject":"watchpost.report.other.>","ack_policy":"none",)"
             R"("deliver_policy":"all","mem_storage":true,"deliver_subject":")" +
             target + "\"}}")
                .c_str());
        std::string got;
        while (got != kEvil) {
            const Fleet::Nats::Msg message = Fleet::Nats::Next(seen.get(), 5000);
            ASSERT_NE(nullptr, message) << target;
            got = Fleet::Nats::Data(message.get());
        }
    }
    // However much it hears.
    for (int i = 0; i < 1000; ++i) {
        natsConnection_PublishString(admin.get(), "watchpost.policy.host.a=2Eb", kEvil.c_str());
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_NE(std::string::npos, told().find("connected, as a.b"));
    EXPECT_NE(kEvil, told());
    EXPECT_EQ(kPolicy, last(Fleet::kPolicyStream, Fleet::SubjectOfPolicy("all")));
    EXPECT_EQ(kPolicy, last(Fleet::kPolicyStream, Fleet::SubjectOfPolicy("host.a=2Eb")));
    EXPECT_EQ(kPolicy, ReadText(AgentProcess::Path("policy/fleet.json")));
    EXPECT_EQ(0, agent.Stop());

    // News of another's policy does not come.
    const Fleet::Nats::Subscription news =
        Fleet::Nats::Subscribe(other.get(), "watchpost.policy.host.a=2Eb");
    EXPECT_EQ(NATS_OK, put(made, Fleet::SubjectOfPolicy("host.a=2Eb"), kPolicy));
    EXPECT_EQ(nullptr, Fleet::Nats::Next(news.get(), 500));

    // A further host, and the servers go on.
    MakeCertificate("ca", "late", "late");
    Shell("cd /etc/nats && printf 'a.b web\\nother\\nlate' | " + packaging +
          "/users >users.conf && for i in 1 2; do kill -HUP $(cat pids); sleep 1; done");
    const Fleet::Nats::Connection late = Fleet::Connect(As("late", "late"));
    natsConnection_JetStream(&context, late.get(), nullptr);
    const Fleet::Nats::JetStream owned_late(context);
    EXPECT_EQ(NATS_OK, put(context, "watchpost.report.late.x", "own"));
    EXPECT_NE(NATS_OK, put(context, "watchpost.report.other.x", "evil", 300));
    EXPECT_EQ(NATS_OK, put(owned.get(), "watchpost.report.other.x", "own"));

    for (const char* server : {"1", "2", "3"}) {
        const std::string log = ReadText("/etc/nats/" + std::string(server) + ".log");
        EXPECT_NE(std::string::npos, log.find("TLS route handshake error")) << log;
    }
    Shell("kill $(cat /etc/nats/pids)");
}

TEST(Security, ACredentialsFileIsGoodForAServerThatAsksForIt) {
    const std::string data = FLEET_TEST_DATA;
    Shell("nats-server -c " + data +
          "/operator.conf -l /tmp/operator.log & echo $! >/tmp/operator.pid");
    Fleet::Settings settings;
    settings.servers = {"nats://127.0.0.1:4230"};
    settings.name = "a.b";
    const auto why_not = [&]() -> std::string {
        try {
            Fleet::Connect(settings);
            return "";
        } catch (const Poco::Exception& e) {
            return e.message();
        }
    };
    EXPECT_TRUE(Await([&] { return why_not() == "no connection: Authorization Violation"; }))
        << why_not();
    settings.credentials = data + "/operator.creds";
    EXPECT_EQ("", why_not());
    settings.credentials = "/nowhere";
    EXPECT_NE(std::string::npos, why_not().find("/nowhere")) << why_not();
    Shell("kill $(cat /tmp/operator.pid)");
}

}  // namespace
