#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <future>
#include <stdexcept>

#include "framework/Engine.h"
#include "framework/TaskThread.h"
#include "sdk/test/TempDir.h"
#include "test/support/TestSupport.h"

namespace {

using Framework::DataMessage;
using Framework::MessageQueue;
using Framework::Policy;
using Framework::TaskCondition;
using TestSupport::Await;
using TestSupport::LogCapture;
using Result = Framework::EnqueueResult;
using Clock = std::chrono::steady_clock;
using Lock = std::lock_guard<std::mutex>;
using Gives = std::function<Policy*()>;
using Findings = std::vector<Framework::Finding>;
using Step = std::function<void(const std::string&)>;

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

// A task that calls `step` with "Init", "Run", "UnInit", "gone", or a message's sender and text.
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
        step_(message->Sender() + " " + dynamic_cast<const DataMessage&>(*message).Content());
    }
    void Send(const std::string& receiver, const std::string& text) {
        SendDirectMsg(receiver, std::make_shared<DataMessage>("", text));
    }

private:
    ~Probe() override { step_("gone"); }
    const Step step_;
};

TEST(MessageQueue, IsBoundedInMessagesAndInBytesAndWakesWhoWaits) {
    const auto start = Clock::now();
    const auto push = [](MessageQueue& queue, std::size_t size, int seconds) {
        return queue.Push(std::make_shared<DataMessage>("", std::string(size, 'x')),
                          std::chrono::seconds(seconds));
    };
    constexpr std::size_t kMost = MessageQueue::kMaxBytes;
    const struct {
        std::size_t capacity, first, second;
        Result result;
    } cases[] = {{2, 0, 0, Result::kQueued},
                 {1, 0, 0, Result::kFull},
                 {9, 1, kMost - 1, Result::kQueued},
                 {9, 1, kMost, Result::kFull},
                 {9, kMost + 1, 0, Result::kFull}};
    for (const auto& c : cases) {
        MessageQueue queue(c.capacity);
        EXPECT_EQ(Result::kQueued, push(queue, c.first, 0));
        EXPECT_EQ(c.result, push(queue, c.second, 0)) << c.second;
    }
    const auto waits = [](const auto& sender) {
        return sender.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
    };
    // Full by messages, and by bytes.
    for (const std::size_t size : {std::size_t{0}, kMost / 4}) {
        MessageQueue queue(size == 0 ? 4 : 9);
        const auto fill = [&](std::size_t count) {
            for (std::size_t i = 0; i < count; ++i) {
                EXPECT_EQ(Result::kQueued, push(queue, size, 0));
            }
            return std::async(std::launch::async, push, std::ref(queue), size, 60);
        };
        auto sender = fill(4);
        EXPECT_TRUE(waits(sender) && queue.Pop(start) != nullptr && waits(sender));
        EXPECT_NE(nullptr, queue.Pop(start));
        EXPECT_EQ(Result::kQueued, sender.get()) << "half of it is free";
        queue.Wake();
        EXPECT_EQ(nullptr, queue.Pop(Clock::time_point::max()));
        auto last = fill(1);
        EXPECT_TRUE(waits(last));
        queue.Close();
        EXPECT_EQ(Result::kClosed, last.get());
        EXPECT_EQ(Result::kClosed, queue.PushOverBounds(std::make_shared<DataMessage>("", "")));
        for (int i = 0; i < 4; ++i) {
            EXPECT_NE(nullptr, queue.Pop(Clock::time_point::max()));
        }
        EXPECT_EQ(nullptr, queue.Pop(Clock::time_point::max()));
        EXPECT_EQ(Result::kClosed, push(queue, 0, 0));
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(50));
    MessageQueue queue(1);
    auto receiver =
        std::async(std::launch::async, [&] { return queue.Pop(start + std::chrono::hours(1)); });
    EXPECT_TRUE(waits(receiver));
    queue.Close();
    EXPECT_EQ(nullptr, receiver.get());
}

TEST(Task, AFullQueueHoldsASenderBackUntilItIsStoppedAndLosesNothing) {
    std::mutex gate;
    std::atomic<int> sent{0};
    const auto receive = [&gate](const std::string& step) {
        const Lock wait(gate);
        Tell(step);
    };
    Probe* sender = nullptr;
    const auto send = [&](const std::string& step) {
        for (; step == "Run" && sent < 9; ++sent) {
            sender->Send("receiver", std::to_string(sent));
        }
    };
    auto* const receiver = new Probe("receiver", 0, receive, 2);
    sender = new Probe("s", 3600, send);
    engine.StartTask(receiver);
    EXPECT_FALSE(engine.StartTask(new Probe("receiver", 0, [](const auto&) {}))) << "another";
    std::unique_lock<std::mutex> closed(gate);
    engine.StartTask(sender);
    EXPECT_FALSE(Await([&] { return sent > 3; }, std::chrono::milliseconds(200)));
    EXPECT_EQ(3, sent) << "the first is being handled";
    sender->RequestStop();
    EXPECT_TRUE(Await([&] { return sent == 9; }));
    receiver->RequestStop();
    closed.unlock();
    // From two threads at once.
    const auto other = std::async(std::launch::async, [] { engine.StopTask("s"); });
    engine.StopTask("s");
    engine.StopTask("receiver");
    Expect("Init;s 0;s 1;s 2;s 3;s 4;s 5;s 6;s 7;s 8;UnInit;gone;");
}

TEST(Engine, StartsNoTaskOnceItRefuses) {
    EXPECT_EXIT(
        {
            engine.RefuseTasks();
            const Poco::AutoPtr<Framework::Task> task(new Probe("late", 0, [](const auto&) {}));
            _exit(engine.StartTask(task) ||
                  engine.StartTask(std::make_shared<Framework::TaskThread>(task)));
        },
        testing::ExitedWithCode(0), "");
}

TEST(TaskPolicy, APeriodIsASecondAtLeast) {
    Framework::TaskPolicy policy("t");
    EXPECT_TRUE(policy.Parse(R"({"kind":10,"value":1})"));
    EXPECT_FALSE(policy.Parse(R"({"kind":10,"value":0})"));
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
                EXPECT_LE(std::chrono::milliseconds(2100), task->GetStatus().lasted);
                long_cycle_end = Clock::now();
            }
            task->Send(nobody, "lost");
            throw std::runtime_error("odd");
        }
        if (step == "Init" || step == "busy message") {
            // Each message it handles sends the next one: the queue is never empty.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            task->Send("busy", "message");
        }
        if (step == "busy message") {
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
    EXPECT_LT(0, status.due - status.began);
    EXPECT_GT(1'100'000, status.due - status.began);
    EXPECT_LE(1U, status.cycles.counts[4]) << "the one of more than a second";
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
        SetId("7");
        SetHash("abc");
    }
    bool Parse(const std::string& /*text*/) override { return true; }
    void Dispatch(Policy* previous) override {
        FeaturePolicy::Dispatch(previous);
        Tell("in force");
    }
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
    bool JudgePolicy(const std::string& /*type*/, const std::string& text, bool host,
                     Findings& findings) override {
        EXPECT_TRUE(host);
        if (text == "odd") {
            throw std::runtime_error("lost");
        }
        findings = says;
        return true;
    }
    Gives gives;
    Findings says;
};

TEST(Delivery, ReplacesInOrderSwitchesOffAndWhatIsRefusedChangesNothing) {
    using Framework::Severity;
    const LogCapture log("watchpost");
    Poco::AutoPtr<WorkerModule> module(new WorkerModule);
    const auto deliver = [&](const std::string& key, const Gives& gives, const Findings& says = {},
                             bool enforce = true) {
        module->gives = gives;
        module->says = says;
        std::string refusal = module->DeliverPolicy("10001", key, key).refusal;
        if (enforce) {
            module->EnforcePolicies();
        }
        return refusal;
    };
    const Gives good = [] { return new WorkerPolicy("worker", 3600); };
    EXPECT_EQ("", deliver("a", good,
                          {{Severity::kWarning, "content.x", "odd", "even it"},
                           {Severity::kError, "", "bad", ""}}));
    Expect("in force;a Init;a Run;");
    EXPECT_EQ(1, log.Count("4 policy a: content.x: odd; even it"));
    EXPECT_EQ(1, log.Count("3 policy a: bad"));
    const auto in_force = [&] {
        std::string all;
        for (const auto& each : module->PoliciesInForce()) {
            EXPECT_GT(60'000'000, each.since.elapsed());
            all += each.module + " " + each.key + " " + each.name + " " + each.id + " " +
                   each.hash + (each.enabled ? " on " : " off ") +
                   std::to_string(each.findings.size());
        }
        return all;
    };
    EXPECT_EQ("workers a feature 7 abc on 2", in_force());

    const Gives kRefused[] = {
        [] { return nullptr; },
        [] { return new Framework::TaskPolicy("worker"); },
        [] { return new WorkerPolicy("other", 5); },
        [] { return new WorkerPolicy("worker", 0); },
    };
    for (const auto& gives : kRefused) {
        EXPECT_NE("", deliver("x", gives));
        Expect("x gone;");
    }
    EXPECT_THROW(deliver("x", []() -> Policy* { throw std::runtime_error("odd"); }),
                 std::runtime_error);
    Expect("x gone;");
    EXPECT_EQ("all: worse; mend it",
              deliver("x", good,
                      {{Severity::kError, "x", "bad", ""},
                       {Severity::kError, "all", "worse", "mend it", true}}));
    EXPECT_EQ(1, log.Count("3 policy x: all: worse; mend it"));
    EXPECT_EQ(1, log.Count("3 module workers: policy x refused: all: worse; mend it"));
    EXPECT_EQ(4, log.Holding("3 module workers: policy x refused: "));

    // Of several only the last one is put to work, and where it gets no thread the old one runs on.
    deliver("first", good, {}, false);
    deliver("b", good, {}, false);
    deliver("x", kRefused[0], {}, false);
    Expect("first gone;x gone;");
    pthread_attr_t usual;
    pthread_attr_t huge;
    ASSERT_EQ(0, pthread_getattr_default_np(&usual) + pthread_attr_init(&huge));
    ASSERT_EQ(0, pthread_attr_setstacksize(&huge, 1UL << 46U));
    ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    module->EnforcePolicies();
    module->EnforcePolicies();
    ASSERT_EQ(0, pthread_setattr_default_np(&usual));
    EXPECT_EQ(1, log.Holding("3 policy b has to wait"));
    module->EnforcePolicies();
    Expect("a UnInit;a gone;in force;b Init;b Run;");
    EXPECT_EQ(1, log.Count("6 feature feature: policy with hash [abc] takes over from hash [abc]"));

    const auto off = [] {
        auto* const policy = new WorkerPolicy("worker", 1);
        policy->SetEnabled(false);
        return policy;
    };
    EXPECT_EQ("", deliver("odd", off));
    Expect("b UnInit;b gone;in force;odd gone;");
    EXPECT_EQ(1, log.Count("3 policy odd not judged by module workers: lost"));
    EXPECT_EQ("workers odd feature 7 abc off 0", in_force());
    deliver("last", good);
    Expect("in force;last Init;last Run;");
    module->UnInit();
    Expect("last UnInit;last gone;");
}

TEST(Modules, BadOnesAreOneErrorLineEachAndTheSoundOneWorks) {
    // As root would install them: the build may belong to somebody else.
    const TempDir fixtures;
    fixtures.Run("cp " FIXTURE_DIR "/*.so .");
    fixtures.Run("touch notes.txt && cp fixture_sound.so others.so && chmod 757 others.so");
    TestSupport::RunningReceiver reports;
    const LogCapture log("watchpost");
    engine.LoadModules(fixtures / "", false);
    EXPECT_EQ(2U, engine.Modules().size()) << "the one whose Init fails, too";
    engine.StopModules();
    EXPECT_EQ(0, log.Holding("the fixture ends"));
    const int errors = log.Errors();
    engine.LoadModules(fixtures / "");
    EXPECT_EQ(errors + 5, log.Errors());
    for (const char* why : {"missing.so not loaded: ", "null.so not loaded: ",
                            "_library.so not loaded: ", "fails.so not loaded: Runtime exception",
                            "others than its owner may write it (mode 0757)"}) {
        EXPECT_LE(1, log.Holding(why)) << why;
    }
    const auto told = [before = engine.GetState().deliveries] {
        const Framework::State state = engine.GetState();
        std::string text = std::to_string(state.deliveries.accepted - before.accepted) +
                           " taken, " + std::to_string(state.deliveries.refused - before.refused) +
                           " refused";
        for (const auto& each : state.refused) {
            text += "; " + each.key + ": " + each.why;
        }
        return text;
    };
    const std::string why = "; a.json: module fixture does not take it, as its log lines tell";
    engine.DeliverPolicy("10001", "a.json", "bad");
    EXPECT_EQ("0 taken, 1 refused" + why, told());
    engine.DeliverPolicy("10001", "a.json", "good");
    engine.EnforcePolicies();
    EXPECT_EQ("1 taken, 1 refused", told());
    engine.DeliverPolicy("10002", "b.json", "good");
    EXPECT_EQ("1 taken, 2 refused; b.json: no module takes policies of its type", told());
    engine.StopModules();
    // The module that failed had started its task; that one has ended, too.
    std::string texts;
    for (const auto& report : reports.Finish()) {
        texts += report.second + " ";
    }
    EXPECT_EQ("start end start bad good end end end ", texts);
    EXPECT_EQ(1, log.Holding("the fixture ends"));
}

}  // namespace
