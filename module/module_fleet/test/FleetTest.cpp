#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "module/module_fleet/src/Spool.h"
#include "module/module_fleet/test/NatsCluster.h"
#include "sdk/JsonUtils.h"
#include "sdk/test/TempDir.h"
#include "test/support/AgentProcess.h"

namespace {

namespace fs = std::filesystem;
using TestSupport::AgentProcess;
using TestSupport::Await;
using TestSupport::NatsCluster;
using TestSupport::ReadText;
using TestSupport::WriteText;

// Made before anything logs: an application that comes into being redirects all loggers.
[[maybe_unused]] Framework::Engine& engine = TestSupport::TestEngine();

TEST(Names, AreOneTokenAndComeBack) {
    const std::pair<std::string, std::string> cases[] = {
        {"web-01_A", "web-01_A"},
        {"web01.example.org", "web01=2Eexample=2Eorg"},
        {"*", "=2A"},
        {"a > b", "a=20=3E=20b"},
        {"=2E", "=3D2E"},
        {std::string("\xc3\xbc\0", 3), "=C3=BC=00"},
    };
    for (const auto& [name, token] : cases) {
        EXPECT_EQ(token, Fleet::Escape(name));
        std::string back;
        EXPECT_TRUE(Fleet::Unescape(token, back)) << token;
        EXPECT_EQ(name, back);
    }
    std::string back;
    for (const char* token : {"", "=", "=2", "=2e", "=41", "=GG", "a.b", "a b"}) {
        EXPECT_FALSE(Fleet::Unescape(token, back)) << token;
    }
}

void Append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::app | std::ios::binary) << text;
}

// The lines that the spool gives now, done with from the start up to one that begins with "!".
std::vector<std::string> Lines(Fleet::Spool& spool) {
    std::vector<std::string> lines;
    bool finish = true;
    const auto take = [&] {
        Fleet::Spool::Line line;
        while (spool.Next(line)) {
            lines.push_back(line.text);
            finish = finish && line.text[0] != '!';
            if (finish) {
                Fleet::Spool::Finish(line);
            }
        }
    };
    take();
    std::this_thread::sleep_for(std::chrono::milliseconds(550));  // behind it looks again
    take();
    return lines;
}

TEST(Spool, GivesEachLineOnceThroughRotationRemovalAndAnInodeUsedAgain) {
    using Strings = std::vector<std::string>;
    const TempDir folder;
    const std::string path = folder / "r";
    Json::Value positions;
    {
        Fleet::Spool spool(path);
        EXPECT_EQ(Strings(), Lines(spool));
        Append(path + ".1", "old\n");
        Append(path + ".2.gz", "no\n");
        Append(path + "s", "no\n");
        Append(path, "a\nb\nhal");
        EXPECT_EQ((Strings{"old", "a", "b"}), Lines(spool));
        Append(path, "f\n");
        fs::rename(path, path + "-20260101");
        Append(path, "c\n");
        Append(path + "-20260101", "late\n");
        EXPECT_EQ((Strings{"half", "late", "c"}), Lines(spool));
        // Gone before it was read: it is open.
        Append(path, "d\n");
        fs::remove(path);
        EXPECT_EQ(Strings{"d"}, Lines(spool));
        Append(path, "e\n!f\ng\n");
        EXPECT_EQ((Strings{"e", "!f", "g"}), Lines(spool));
        spool.Rewind();
        EXPECT_EQ((Strings{"!f", "g"}), Lines(spool));
        positions = spool.Positions();
    }
    fs::rename(path, path + ".3");
    Append(path, "h\n");
    // The same inode, and it is longer than what was read of it.
    WriteText(path + ".1", "new file\n");
    const struct {
        Json::Value positions;
        Strings lines;
    } cases[] = {
        {positions, {"!f", "g", "new file", "h"}},
        {Json::Value(Json::arrayValue),
         {"a", "b", "half", "late", "e", "!f", "g", "new file", "h"}},
        {Json::Value("torn"), {"a", "b", "half", "late", "e", "!f", "g", "new file", "h"}},
    };
    for (const auto& c : cases) {
        Fleet::Spool spool(path);
        spool.Resume(c.positions);
        EXPECT_EQ(c.lines, Lines(spool));
    }
}

// Agents that follow each other on this host; what they leave stays until the end.
class Host {
public:
    explicit Host(const std::string& more) {
        fs::create_directories(AgentProcess::Path("conf"));
        WriteText(AgentProcess::Path("conf/watchpost.properties"), more);
        Start();
    }
    void Start() { agents_.push_back(std::make_unique<AgentProcess>()); }
    int Stop(int signal = SIGTERM) { return agents_.back()->Stop(signal); }

private:
    std::vector<std::unique_ptr<AgentProcess>> agents_;
};

std::string Report(int number, const std::string& type) {
    return R"({"time":"2026-11-22T20:15:03.120Z","host":"a.b","task":"t","type":")" + type +
           R"(","content":{"n":1},"id":"a.b-1f-)" + std::to_string(number) + "\"}\n";
}

// Writes reports as an agent's report task does, many a second, and rotates the file.
class Reporter {
public:
    explicit Reporter(int lines) : thread_([this, lines] { Run(lines); }) {}
    ~Reporter() { thread_.join(); }
    int Written() const { return written_; }

private:
    void Run(int lines) {
        const std::string path = AgentProcess::Path("log/watchpost_report.jsonl");
        for (int i = 1; i <= lines; ++i) {
            Append(path, Report(i, "x" + std::to_string(i % 3)));
            written_ = i;
            if (i % 3000 == 0) {
                fs::rename(path, path + "." + std::to_string(i));
            }
            if (i % 10 == 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
    }
    std::atomic<int> written_{0};
    std::thread thread_;
};

// The servers remember ids for a moment only, so that nothing but the agent keeps repeats away.
void ForgetIdsSoon(NatsCluster& cluster) {
    ASSERT_TRUE(cluster.Eventually([&](natsConnection*) {
        jsStreamInfo* info = nullptr;
        Fleet::Nats::Check(
            js_GetStreamInfo(&info, cluster.Stream(), Fleet::kReportStream, nullptr, nullptr), "");
        info->Config->Duplicates = 200'000'000;
        const natsStatus status =
            js_UpdateStream(nullptr, cluster.Stream(), info->Config, nullptr, nullptr);
        jsStreamInfo_Destroy(info);
        Fleet::Nats::Check(status, "");
    }));
}

TEST(Fleet, EveryReportIsInTheStreamOnceWhateverDies) {
    NatsCluster cluster;
    ASSERT_TRUE(cluster.IsReady());
    ForgetIdsSoon(cluster);
    Host host("fleet.servers = " + cluster.Urls() + "\nfleet.name = a.b\n");
    const std::string checkpoint = AgentProcess::Path("log/watchpost_fleet.json");
    constexpr int kLines = 12000;
    {
        Reporter reporter(kLines);
        const auto reached = [&](int lines) {
            ASSERT_TRUE(Await([&] { return reporter.Written() >= lines; }));
        };
        const auto restart = [&] {
            EXPECT_EQ(-SIGKILL, host.Stop(SIGKILL));
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            host.Start();
        };
        ASSERT_TRUE(Await([&] { return cluster.Messages() > 500; }));
        restart();
        reached(3000);
        const int leader = cluster.Leader();
        ASSERT_LE(0, leader);
        cluster.Kill(leader);
        reached(4500);
        EXPECT_EQ(-SIGKILL, host.Stop(SIGKILL));
        fs::resize_file(checkpoint, fs::file_size(checkpoint) / 2);
        host.Start();
        cluster.Start(leader);
        reached(7000);
        restart();
        for (int i = 0; i < NatsCluster::kServers; ++i) {
            cluster.Kill(i);
        }
        reached(8000);
        restart();
        for (int i = 0; i < NatsCluster::kServers; ++i) {
            cluster.Start(i);
        }
    }
    // The agent's wait between two tries has grown meanwhile.
    EXPECT_TRUE(Await([&] { return cluster.Messages() >= kLines; }, std::chrono::seconds(120)));
    // A further agent, with no checkpoint at all, finds nothing to do.
    EXPECT_EQ(0, host.Stop());
    fs::remove(checkpoint);
    host.Start();
    EXPECT_TRUE(Await([&] { return fs::exists(checkpoint); }));
    const std::map<std::string, int> ids = cluster.Ids();
    EXPECT_EQ(kLines, static_cast<int>(ids.size()));
    for (int i = 1; i <= kLines; ++i) {
        const auto found = ids.find("a.b-1f-" + std::to_string(i));
        EXPECT_EQ(1, found == ids.end() ? 0 : found->second) << i;
    }
    EXPECT_EQ(0, host.Stop());
}

TEST(Fleet, AFirstReportOfATypeThatNobodyTookIsSentAgain) {
    NatsCluster cluster;
    ASSERT_TRUE(cluster.IsReady());
    Host host("fleet.servers = " + cluster.Urls() + "\nfleet.name = a.b\n");
    const std::string path = AgentProcess::Path("log/watchpost_report.jsonl");
    ASSERT_TRUE(AgentProcess::AwaitLog("fleet: all is well"));
    Append(path, Report(1, "x"));
    ASSERT_TRUE(Await([&] { return cluster.Messages() == 1; }));
    // The server that the agent is connected to stays, and can store nothing by itself.
    const std::string log = ReadText(AgentProcess::Path("log/watchpost.log"));
    const int own = log[log.find("nats://127.0.0.1:422") + 20] - '1';
    for (int i = 0; i < NatsCluster::kServers; ++i) {
        if (i != own) {
            cluster.Kill(i);
        }
    }
    Append(path, Report(2, "y"));
    EXPECT_TRUE(Await([&] {
        return AgentProcess::Logged("error: answer: No responders") > 0 ||
               AgentProcess::Logged("the stream does not acknowledge") > 0 ||
               AgentProcess::Logged("stream watchpost_reports") > 0;
    })) << ReadText(AgentProcess::Path("log/watchpost.log"));
    for (int i = 0; i < NatsCluster::kServers; ++i) {
        if (i != own) {
            cluster.Start(i);
        }
    }
    // The leader may have kept the second for then.
    Append(path, Report(3, "x"));
    EXPECT_TRUE(Await([&] { return cluster.Messages() == 3; }, std::chrono::seconds(60)));
    EXPECT_EQ(0, host.Stop());
}

std::string Policy(const std::string& hash, const std::string& server = "10.0.0.1") {
    return R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature","hash":")" + hash +
           R"(","content":{"check_period_s":9,"server_type":"udp","log_path":["/var/log/a:514"],)" +
           R"("server":[")" + server + "\"]}}";
}

TEST(Fleet, TheMostSpecificGoodPolicyIsInForceAndTheClusterIsTold) {
    NatsCluster cluster;
    ASSERT_TRUE(cluster.IsReady());
    const std::string file = AgentProcess::Path("policy/fleet.json");
    Host host("fleet.servers = " + cluster.Urls() + "\nfleet.name = a.b\nfleet.groups = web, db\n");
    const auto last = [&](const char* stream, const std::string& subject) {
        Json::Value value;
        cluster.Eventually([&](natsConnection*) {
            natsMsg* found = nullptr;
            Fleet::Nats::Check(
                js_GetLastMsg(&found, cluster.Stream(), stream, subject.c_str(), nullptr, nullptr),
                "");
            const Fleet::Nats::Msg message(found);
            const std::string text = Fleet::Nats::Data(found);
            SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value);
        });
        return value;
    };
    const auto told = [&] { return last(Fleet::kHostStream, Fleet::SubjectOfHost("a.b")); };
    const std::string bad = Policy("bad", "10.0.0.1\\n*.* @evil");
    const struct {
        const char* key;
        std::string text;  // empty: the key is removed
        std::string source;
        std::string followed;  // the hash in force; empty: no file
        bool restart = false;  // the agent, which does not see the change happen
    } steps[] = {
        {"all", Policy("1"), "all", "1"},
        {"group.db", Policy("2"), "group.db", "2"},
        {"host.other", Policy("3"), "group.db", "2"},
        {"group.web", Policy("4"), "group.web", "4"},
        {"host.a=2Eb", bad, "group.web", "4"},
        {"host.a=2Eb", Policy("5"), "host.a=2Eb", "5"},
        {"host.a=2Eb", "", "group.web", "4", true},
        {"group.web", "", "group.db", "2"},
        {"group.db", "", "all", "1"},
        {"all", "", "", ""},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.key + std::string(" becomes ") + step.text);
        if (step.restart) {
            EXPECT_EQ(0, host.Stop());
        }
        ASSERT_TRUE(cluster.Eventually([&](natsConnection*) {
            natsMsg* made = nullptr;
            Fleet::Nats::Check(
                natsMsg_Create(&made, Fleet::SubjectOfPolicy(step.key).c_str(), nullptr,
                               step.text.data(), static_cast<int>(step.text.size())),
                "");
            const Fleet::Nats::Msg message(made);
            if (step.text.empty()) {
                natsMsgHeader_Set(made, "KV-Operation", "DEL");
            }
            Fleet::Nats::Check(js_PublishMsg(nullptr, cluster.Stream(), made, nullptr, nullptr),
                               "");
        }));
        if (step.restart) {
            host.Start();
        }
        Json::Value value;
        EXPECT_TRUE(Await([&] {
            value = told();
            const Json::Value& policy = value["policy"];
            // What was in force goes on when its file is gone.
            return SDK::JsonUtils::GetStringValue(policy, "source", "") == step.source &&
                   policy.isMember("refused") == (step.text == bad) &&
                   (step.followed.empty() || value["policies"][0]["hash"] == step.followed);
        })) << SDK::JsonUtils::JsonToString(value);
        EXPECT_EQ(step.followed.empty() ? "" : Policy(step.followed), ReadText(file));
        if (step.text == bad) {
            EXPECT_EQ(step.key, value["policy"]["refused"]["source"].asString());
            EXPECT_EQ("content.server[0]",
                      value["policy"]["refused"]["findings"][0]["key"].asString());
        }
    }
    // What is refused on the host itself, a report that is larger than the servers take, and a
    // checkpoint that cannot be written.
    WriteText(AgentProcess::Path("policy/bad.json"), "{");
    EXPECT_TRUE(Await([&] { return told()["refused"][0]["key"] == "bad.json"; }));
    constexpr unsigned kLarge = 2'000'000;
    Append(AgentProcess::Path("log/watchpost_report.jsonl"), R"({"type":"large","content":")" +
                                                                 std::string(kLarge, 'a') +
                                                                 R"(","id":"a.b-1"})"
                                                                 "\n");
    Json::Value content;
    EXPECT_TRUE(Await([&] {
        content = last(Fleet::kReportStream, "watchpost.report.a=2Eb.large")["content"];
        return content.isObject();
    }));
    EXPECT_EQ(kLarge + 2, content["length"].asUInt());
    EXPECT_EQ(0U, content["begin"].asString().find("\"aaa"));
    EXPECT_EQ(0, host.Stop());
    const std::string checkpoint = AgentProcess::Path("log/watchpost_fleet.json");
    EXPECT_NE(std::string::npos, ReadText(checkpoint).find(R"("files":[{)"));
    fs::remove(checkpoint);
    fs::create_directory(checkpoint);
    host.Start();
    EXPECT_TRUE(AgentProcess::AwaitLog("I/O error: checkpoint " + checkpoint));
    EXPECT_EQ(0, host.Stop());
}

TEST(Fleet, AStopWaitsForNoServer) {
    // It takes connections, by the kernel, and says nothing.
    const int silent = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(4999);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(silent, 8));
    for (const char* servers : {"nats://127.0.0.1:4999", "nats://127.0.0.1:1"}) {
        Host host("fleet.servers = " + std::string(servers));
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(0, host.Stop());
        EXPECT_GT(std::chrono::seconds(3), std::chrono::steady_clock::now() - began) << servers;
    }
    close(silent);
}

}  // namespace
