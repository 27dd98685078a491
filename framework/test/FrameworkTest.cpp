#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <numeric>
#include <stdexcept>

#include "framework/Engine.h"
#include "test/support/TestSupport.h"

namespace {

using Framework::Policy;
using Framework::TaskCondition;
using TestSupport::Await;
using TestSupport::LogCapture;
using Clock = std::chrono::steady_clock;
using Lock = std::lock_guard<std::mutex>;
using Step = std::function<void(const std::string&)>;

// The fixture modules, as root would install them: the build may belong to somebody else.
std::string Fixtures() {
    static const std::string directory = "/tmp/fixtures";
    if (std::filesystem::create_directory(directory)) {
        EXPECT_EQ(0, std::system(("cp " FIXTURE_DIR "/*.so " + directory).c_str()));
        std::filesystem::copy(directory + "/fixture_sound.so", directory + "/fixture_others.so");
        EXPECT_EQ(0, chmod((directory + "/fixture_others.so").c_str(), 0757));
    }
    return directory;
}

// Made before anything logs: an application that comes into being redirects all loggers.
Framework::Engine& engine = TestSupport::TestEngine();

std::mutex mutex;
std::string happened;

void Tell(const std::string& event) {
    const Lock lock(mutex);
    happened += event + ";";
}

// Checks what has happened since the previous call; waits for it.
void Expect(const std::string& expected) {
    Await([&] {
        const Lock lock(mutex);
        return happened.size() >= expected.size();
    });
    const Lock lock(mutex);
    EXPECT_EQ(expected, std::exchange(happened, ""));
}

// A task that calls `step` with "Init", "Run", "UnInit", "gone", or the text of a message.
class Probe : public Framework::Task {
public:
    Probe(const std::string& name, int period, Step step, std::size_t capacity = 1024)
        : Task(name, "", TaskCondition::kPeriodic, capacity), step_(std::move(step)) {
        Framework::TaskPolicy policy(name);
        policy.SetCondition(TaskCondition::kPeriodSeconds, period);
        Attach(nullptr, policy);
    }
    int Init() override {
        step_("Init");
        return 1;
    }
    int Run() override {
        step_("Run");
        return 0;
    }
    void UnInit() override { step_("UnInit"); }
    void HandleMsg(const Framework::Message* message) override {
        step_(dynamic_cast<const Framework::DataMessage&>(*message).Content());
    }
    void Send(const std::string& receiver, const std::string& text) {
        SendDirectMsg(receiver, std::make_shared<Framework::DataMessage>("", text));
    }

private:
    ~Probe() override { step_("gone"); }
    const Step step_;
};

TEST(Task, QueueHoldsSendersBackKeepsOrderAndLosesNothing) {
    struct Case {
        std::size_t capacity, padding;
        int sent_at_once;  // one is being handled, the others are queued
        bool sender_is_stopped;
    };
    constexpr std::size_t kMebi = 1 << 20;
    for (const Case& c : {Case{2, 0, 3, false}, Case{2, 0, 3, true}, Case{1024, 3 * kMebi, 3, true},
                          Case{1024, 9 * kMebi, 2, false}}) {
        const std::string padding = " " + std::string(c.padding, 'x');
        std::mutex gate;
        std::atomic<int> sent{0};
        const auto handle = [&gate](const std::string& step) {
            const Lock wait(gate);
            Tell(step.substr(0, step.find(' ')));
        };
        auto* const receiver = new Probe("receiver", 0, handle, c.capacity);
        Probe* sender = nullptr;
        sender = new Probe("sender", 3600, [&](const std::string& step) {
            for (; step == "Run" && sent < 9; ++sent) {
                sender->Send("receiver", std::to_string(sent) + padding);
            }
        });
        engine.StartTask(receiver);
        std::unique_lock<std::mutex> closed(gate);
        engine.StartTask(sender);
        EXPECT_TRUE(Await([&] { return sent == c.sent_at_once; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_EQ(c.sent_at_once, sent);
        c.sender_is_stopped ? sender->RequestStop() : closed.unlock();
        EXPECT_TRUE(Await([&] { return sent == 9; }));
        receiver->RequestStop();
        closed = {};
        // From two threads at once.
        auto other = std::async(std::launch::async, [] { engine.StopTask("sender"); });
        engine.StopTask("sender");
        other.get();
        engine.StopTask("receiver");
        Expect("Init;0;1;2;3;4;5;6;7;8;UnInit;gone;");
    }
}

TEST(CycleCounts, CountsACycleUnderTheFirstBoundThatItDoesNotExceed) {
    Framework::CycleCounts cycles;
    for (const double lasted : {0.0, 0.001, 0.0011, 0.5, 1.0, 600.0, 601.0}) {
        cycles.Add(std::chrono::duration<double>(lasted));
    }
    EXPECT_EQ((std::array<std::uint64_t, 8>{2, 1, 0, 2, 0, 0, 1, 1}), cycles.counts);
    EXPECT_NEAR(1202.5021, cycles.sum.count(), 1e-6);
}

TEST(Task, RunsOnceAPeriodWithoutCatchingUpWhateverMessagesAndFaultsCome) {
    const LogCapture log("watchpost");
    // A name that no test before this one has used up.
    const std::string nobody = std::to_string(Clock::now().time_since_epoch().count());
    std::vector<Clock::time_point> starts;
    Clock::time_point long_cycle_end;
    std::atomic<int> runs{0};
    Probe* task = nullptr;
    task = new Probe("busy", 1, [&](const std::string& step) {
        if (step == "Run") {
            starts.push_back(Clock::now());
            if (++runs == 1) {
                EXPECT_TRUE(task->GetStatus().running);
                std::this_thread::sleep_for(std::chrono::milliseconds(2100));
                long_cycle_end = Clock::now();
            }
            task->Send(nobody, "lost");
            throw std::runtime_error("odd");
        }
        if (step == "Init" || step == "message") {
            // Each message it handles sends the next one: the queue is never empty.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            task->Send("busy", "message");
        }
        if (step == "message") {
            throw 7;
        }
    });
    EXPECT_TRUE(engine.StartTask(task));
    EXPECT_TRUE(Await([&] { return runs > 3 && !task->GetStatus().running; }));
    const Framework::TaskStatus status = task->GetStatus();
    EXPECT_GT(status.processor.count(), 0);
    EXPECT_EQ(std::chrono::seconds(1), status.period);
    EXPECT_LT(status.lasted, std::chrono::seconds(2)) << "that was another cycle";
    EXPECT_LT(Poco::Timestamp() - status.began, 30'000'000);
    EXPECT_LT(status.began, status.due);
    EXPECT_LT(status.due - status.began, 1'100'000);
    const auto& counts = status.cycles.counts;
    EXPECT_LE(4U, std::accumulate(counts.begin(), counts.end(), std::uint64_t{0}));
    EXPECT_LE(1U, counts[4]) << "the one of more than a second";
    EXPECT_LT(2.1, status.cycles.sum.count());
    engine.StopTask("busy");
    // However late a run is, the n-th one after the long cycle has n - 1 whole periods before it.
    for (std::size_t i = 1; i < starts.size(); ++i) {
        EXPECT_GE(starts[i] - long_cycle_end, std::chrono::seconds(i - 1)) << "run " << i;
    }
    EXPECT_EQ(runs, log.Count("3 task busy: Run failed: odd"));
    EXPECT_LT(1, log.Count("3 task busy: HandleMsg failed: unknown exception"));
    EXPECT_EQ(1, log.Holding("3 messages for the task " + nobody + " are dropped"));
    EXPECT_FALSE(engine.StartTask(new Probe("unborn", 1, [](const std::string& step) {
        Tell(step);
        if (step == "Init") {
            throw std::runtime_error("even");
        }
    })));
    Expect("Init;gone;");
}

// A policy with one task policy; tells when it takes over.
class WorkerPolicy : public Framework::FeaturePolicy {
public:
    WorkerPolicy(const std::string& task, int period) : FeaturePolicy("feature") {
        auto* const task_policy = new Framework::TaskPolicy(task);
        task_policy->SetCondition(TaskCondition::kPeriodSeconds, period);
        Add(task_policy);
    }
    bool Parse(const std::string& /*text*/) override { return true; }
    void Dispatch(Policy* /*previous*/) override { Tell("in force"); }
};

// A module whose documents give what the test says. Its task, "worker", tells its life, with the
// key of the document it follows.
class WorkerModule : public Framework::Module {
public:
    WorkerModule() : Module("workers") { RegisterPolicyCallback("10001", nullptr); }
    Policy* RefreshPolicy(const std::string& /*type*/, const std::string& key,
                          const std::string& /*text*/, Policy*& /*current*/) override {
        const auto tell = [key](const std::string& step) {
            // Time for a successor to come too early.
            std::this_thread::sleep_for(std::chrono::milliseconds(step == "UnInit" ? 100 : 0));
            Tell(key + " " + step);
        };
        RegisterTask(new Probe("worker", 0, tell), false);
        return gives();
    }
    bool JudgePolicy(const std::string& /*type*/, const std::string& /*text*/, bool host,
                     std::vector<Framework::Finding>& findings) override {
        EXPECT_TRUE(host);
        says(findings);
        return true;
    }
    std::function<void(std::vector<Framework::Finding>&)> says = [](auto&) {};
    std::function<Policy*()> gives;
};

TEST(Delivery, ReplacesInOrderSwitchesOffAndARefusedDocumentChangesNothing) {
    const LogCapture log("watchpost");
    Poco::AutoPtr<WorkerModule> module(new WorkerModule);
    const auto judge = [&](const std::string& key, const std::function<Policy*()>& gives) {
        module->gives = gives;
        module->DeliverPolicy("10001", key, "");
    };
    const auto deliver = [&](const std::string& key, const std::function<Policy*()>& gives) {
        judge(key, gives);
        module->EnforcePolicies();
    };
    const auto good = [] { return new WorkerPolicy("worker", 3600); };
    deliver("a", good);
    Expect("in force;a Init;a Run;");
    const std::function<Policy*()> kRefused[] = {
        [] { return nullptr; },
        [] { return new Framework::TaskPolicy("worker"); },
        [] { return new WorkerPolicy("other", 5); },
        [] { return new WorkerPolicy("worker", 0); },
    };
    for (const auto& gives : kRefused) {
        deliver("x", gives);
        Expect("x gone;");
    }
    EXPECT_THROW(deliver("x", []() -> Policy* { throw std::runtime_error("odd"); }),
                 std::runtime_error);
    Expect("x gone;");
    EXPECT_EQ(3, log.Holding("3 module workers: policy x refused: "));
    // Of several only the last one is put to work, and where it gets no thread the old one runs on.
    judge("first", good);
    judge("b", good);
    judge("x", kRefused[0]);
    Expect("first gone;x gone;");
    pthread_attr_t usual;
    pthread_attr_t huge;
    ASSERT_EQ(0, pthread_getattr_default_np(&usual));
    ASSERT_EQ(0, pthread_attr_init(&huge));
    ASSERT_EQ(0, pthread_attr_setstacksize(&huge, 1UL << 46U));
    ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    module->EnforcePolicies();
    module->EnforcePolicies();
    ASSERT_EQ(0, pthread_setattr_default_np(&usual));
    EXPECT_EQ(1, log.Holding("3 policy b has to wait"));
    module->EnforcePolicies();
    Expect("a UnInit;a gone;in force;b Init;b Run;");
    deliver("off", [&] {
        auto* const policy = good();
        policy->SetEnabled(false);
        return policy;
    });
    Expect("b UnInit;b gone;in force;off gone;");
}

TEST(Delivery, LogsWhatTheJudgeFindsKeepsItWithThePolicyAndHeedsARefusal) {
    using Framework::Severity;
    const LogCapture log("watchpost");
    Poco::AutoPtr<WorkerModule> module(new WorkerModule);
    module->gives = [] {
        auto* const policy = new WorkerPolicy("worker", 3600);
        policy->SetId("7");
        policy->SetHash("abc");
        return policy;
    };
    const auto deliver = [&](const std::string& key, const auto& says) {
        module->says = says;
        const Framework::Delivery delivery = module->DeliverPolicy("10001", key, "");
        EXPECT_NE(delivery.accepted, !delivery.refusal.empty());
        module->EnforcePolicies();
        return delivery.refusal;
    };
    EXPECT_EQ("", deliver("a", [](auto& findings) {
                  findings.push_back({Severity::kWarning, "content.x", "odd", "even it"});
                  findings.push_back({Severity::kError, "", "bad", ""});
              }));
    EXPECT_EQ("all: worse; mend it", deliver("b", [](auto& findings) {
                  findings.push_back({Severity::kError, "x", "bad", ""});
                  findings.push_back({Severity::kError, "all", "worse", "mend it", true});
              }));
    Expect("in force;a Init;a Run;");
    EXPECT_EQ(1, log.Count("4 policy a: content.x: odd; even it"));
    EXPECT_EQ(1, log.Count("3 policy a: bad"));
    EXPECT_EQ(1, log.Count("3 policy b: all: worse; mend it"));
    EXPECT_EQ(1, log.Count("3 module workers: policy b refused: all: worse; mend it"));
    auto states = module->PoliciesInForce();
    ASSERT_EQ(1U, states.size());
    const Framework::PolicyState& a = states.front();
    EXPECT_EQ("workers a feature 7 abc",
              a.module + " " + a.key + " " + a.name + " " + a.id + " " + a.hash);
    EXPECT_EQ(2U, a.findings.size());
    EXPECT_TRUE(a.enabled && Poco::Timestamp() - a.since < 60'000'000);
    EXPECT_EQ("", deliver("c", [](auto&) { throw std::runtime_error("lost"); }));
    EXPECT_EQ(1, log.Count("3 policy c not judged by module workers: lost"));
    EXPECT_EQ("c", module->PoliciesInForce().front().key);
    EXPECT_TRUE(module->PoliciesInForce().front().findings.empty());
    Expect("a UnInit;a gone;in force;c Init;c Run;");
    module->UnInit();
    Expect("c UnInit;c gone;");
}

TEST(Modules, BadOnesAreOneErrorLineEachAndTheSoundOneWorks) {
    TestSupport::RunningReceiver reports;
    const LogCapture log("watchpost");
    engine.LoadModules(Fixtures());
    for (const std::string bad : {"factory_missing.so", "factory_null.so", "init_fails.so",
                                  "factory_throws.so", "no_library.so", "others.so"}) {
        EXPECT_EQ(1, log.Holding("_" + bad + " not loaded: ")) << bad;
    }
    EXPECT_EQ(6, log.Errors());
    EXPECT_EQ(1, log.Holding("others than its owner may write it (mode 0757)"));
    const std::uint64_t refused_before = engine.GetState().deliveries.refused;
    engine.DeliverPolicy("10001", "good.json", "document");
    engine.EnforcePolicies();
    // Its callback gives no policy.
    const auto refused = [] {
        std::string keys;
        for (const auto& each : engine.GetState().refused) {
            keys += each.key + ": " + each.why + ";";
        }
        return keys;
    };
    EXPECT_EQ("good.json: module fixture does not take it, as its log lines tell;", refused());
    engine.ForgetPolicy("good.json");
    engine.DeliverPolicy("10002", "other.json", "document");
    EXPECT_EQ("other.json: no module takes policies of its type;", refused());
    EXPECT_EQ(refused_before + 2, engine.GetState().deliveries.refused);
    engine.StopModules();
    // The module that failed had started its task; that one has ended, too.
    std::string texts;
    for (const auto& report : reports.Finish()) {
        texts += report.second + " ";
    }
    EXPECT_EQ("start end start document end end ", texts);
    EXPECT_EQ(1, log.Holding("the fixture ends"));
}

TEST(Modules, AreLoadedWithoutInitToo) {
    TestSupport::RunningReceiver reports;
    const LogCapture log("watchpost");
    engine.LoadModules(Fixtures(), false);
    EXPECT_EQ(2U, engine.Modules().size());
    engine.StopModules();
    EXPECT_EQ(0, log.Holding("the fixture ends"));
    EXPECT_TRUE(reports.Finish().empty());
}

}  // namespace
