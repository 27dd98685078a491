#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "framework/Engine.h"
#include "test/support/TestSupport.h"

namespace {

using Framework::Policy;
using Framework::TaskCondition;
using TestSupport::Await;
using TestSupport::LogCapture;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;
using Lock = std::lock_guard<std::mutex>;
using Step = std::function<void(const std::string&)>;

// Made before anything logs: an application that comes into being redirects all loggers.
Framework::Engine& engine = TestSupport::TestEngine();

// What happened, in order; from any thread.
class Events {
public:
    void Add(const std::string& event) {
        const Lock lock(mutex_);
        events_.push_back(event);
    }
    // What has happened since the previous call, up to the event awaited, if any.
    Strings Take(const std::string& last = "") {
        EXPECT_TRUE(Await([&] {
            const Lock lock(mutex_);
            return last.empty() || (!events_.empty() && events_.back() == last);
        }));
        const Lock lock(mutex_);
        return std::exchange(events_, {});
    }

private:
    std::mutex mutex_;
    Strings events_;
} events;

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
    for (const bool sender_is_stopped : {false, true}) {
        std::mutex gate;
        std::atomic<int> sent{0};
        const auto handle = [&gate](const std::string& step) {
            const Lock wait(gate);
            events.Add(step);
        };
        auto* const receiver = new Probe("receiver", 0, handle, 2);
        Probe* sender = nullptr;
        sender = new Probe("sender", 3600, [&](const std::string& step) {
            for (; step == "Run" && sent < 9; ++sent) {
                sender->Send("receiver", std::to_string(sent));
            }
        });
        engine.StartTask(receiver);
        std::unique_lock<std::mutex> closed(gate);
        engine.StartTask(sender);
        // One message is being handled, two are queued; the fourth waits for room.
        EXPECT_TRUE(Await([&] { return sent == 3; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_EQ(3, sent);
        sender_is_stopped ? sender->RequestStop() : closed.unlock();
        EXPECT_TRUE(Await([&] { return sent == 9; }));
        receiver->RequestStop();
        closed = {};
        engine.StopTask("sender");
        engine.StopTask("receiver");
        EXPECT_EQ((Strings{"Init", "0", "1", "2", "3", "4", "5", "6", "7", "8", "UnInit", "gone"}),
                  events.Take());
    }
}

TEST(Task, RunsOnceAPeriodWithoutCatchingUpWhateverMessagesCome) {
    std::vector<Clock::time_point> starts;
    Clock::time_point long_cycle_end;
    std::atomic<int> runs{0};
    Probe* task = nullptr;
    task = new Probe("busy", 1, [&](const std::string& step) {
        if (step == "Run") {
            starts.push_back(Clock::now());
            if (++runs == 1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2100));
                long_cycle_end = Clock::now();
            }
        } else if (step == "Init" || step == "message") {
            // Each message it handles sends the next one: the queue is never empty.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            task->Send("busy", "message");
        }
    });
    engine.StartTask(task);
    EXPECT_TRUE(Await([&] { return runs > 3; }, std::chrono::seconds(15)));
    engine.StopTask("busy");
    // However late a run is, the n-th one after the long cycle has n - 1 whole periods before it.
    for (std::size_t i = 1; i < starts.size(); ++i) {
        EXPECT_GE(starts[i] - long_cycle_end, std::chrono::seconds(i - 1)) << "run " << i;
    }
}

TEST(Task, FaultsAreLoggedAndTheTaskLivesOn) {
    const LogCapture log("watchpost");
    // A name that no test before this one has used up.
    const std::string nobody = std::to_string(Clock::now().time_since_epoch().count());
    Probe* task = nullptr;
    task = new Probe("faulty", 1, [&](const std::string& step) {
        if (step == "Init") {
            task->Send("faulty", "message");
        } else if (step == "Run") {
            task->Send(nobody, "lost");
            throw std::runtime_error("odd");
        } else if (step == "message") {
            throw 7;
        }
    });
    EXPECT_TRUE(engine.StartTask(task));
    EXPECT_TRUE(Await([&] { return log.Count("3 task faulty: Run failed: odd") > 1; }));
    engine.StopTask("faulty");
    EXPECT_EQ(1, log.Count("3 task faulty: HandleMsg failed"));
    EXPECT_EQ(1, log.Holding("3 messages for the task " + nobody + " are dropped"));
    EXPECT_FALSE(engine.StartTask(new Probe("unborn", 1, [](const std::string& step) {
        events.Add(step);
        if (step == "Init") {
            throw std::runtime_error("even");
        }
    })));
    EXPECT_EQ((Strings{"Init", "gone"}), events.Take());
    EXPECT_EQ(1, log.Count("3 task unborn: Init failed: even"));
    EXPECT_FALSE(engine.FindTask("unborn"));
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
    void Dispatch(Policy* /*previous*/) override { events.Add("in force"); }
};

// A module whose documents give what the test says. Its task, "worker", tells its life, with the
// key of the document it follows.
class WorkerModule : public Framework::Module {
public:
    WorkerModule() : Module("workers") {
        RegisterPolicyCallback(
            "10001", new Framework::PolicyCallback<WorkerModule>(this, &WorkerModule::OnPolicy));
    }
    void Deliver(const std::string& key, const std::function<Policy*()>& gives) {
        gives_ = gives;
        DeliverPolicy("10001", key, "");
    }

private:
    Policy* OnPolicy(const std::string& key, const std::string& /*text*/, Policy*& /*current*/) {
        const auto tell = [key](const std::string& step) {
            // Time for a successor to come too early.
            std::this_thread::sleep_for(std::chrono::milliseconds(step == "UnInit" ? 100 : 0));
            events.Add(key + " " + step);
        };
        RegisterTask(new Probe("worker", 0, tell), false);
        return gives_();
    }
    std::function<Policy*()> gives_;
};

TEST(Delivery, ReplacesInOrderSwitchesOffAndARefusedDocumentChangesNothing) {
    const LogCapture log("watchpost");
    Poco::AutoPtr<WorkerModule> module(new WorkerModule);
    const auto good = [] { return new WorkerPolicy("worker", 3600); };
    module->Deliver("a", good);
    EXPECT_EQ((Strings{"in force", "a Init", "a Run"}), events.Take("a Run"));
    const std::function<Policy*()> kRefused[] = {
        [] { return nullptr; },
        [] { return new Framework::TaskPolicy("worker"); },
        [] { return new WorkerPolicy("other", 5); },
        [] { return new WorkerPolicy("worker", 0); },
        []() -> Policy* { throw std::runtime_error("odd"); },
    };
    for (const auto& gives : kRefused) {
        try {
            module->Deliver("x", gives);
        } catch (const std::runtime_error&) {
            EXPECT_EQ(&gives, std::end(kRefused) - 1);
        }
        EXPECT_EQ(Strings{"x gone"}, events.Take());
        EXPECT_TRUE(engine.FindTask("worker"));
    }
    EXPECT_EQ(3, log.Holding("3 module workers: policy x refused: "));
    module->Deliver("b", good);
    EXPECT_EQ((Strings{"a UnInit", "a gone", "in force", "b Init", "b Run"}), events.Take("b Run"));
    module->Deliver("off", [&] {
        auto* const policy = good();
        policy->SetEnabled(false);
        return policy;
    });
    EXPECT_EQ((Strings{"b UnInit", "b gone", "in force", "off gone"}), events.Take());
    EXPECT_FALSE(engine.FindTask("worker"));
    module->UnInit();
}

TEST(Modules, BadOnesAreOneErrorLineEachAndTheSoundOneWorks) {
    TestSupport::RunningReceiver reports;
    const LogCapture log("watchpost");
    engine.LoadModules(FIXTURE_DIR);
    for (const std::string bad : {"factory_missing.so", "factory_null.so", "init_fails.so",
                                  "factory_throws.so", "no_library.so"}) {
        EXPECT_EQ(1, log.Holding("_" + bad + " not loaded: ")) << bad;
    }
    EXPECT_EQ(5, log.Errors());
    EXPECT_EQ(1, log.Holding("_sound.so loaded"));
    engine.DeliverPolicy("10001", "good.json", "document");
    engine.StopModules();
    // The module that failed had started its task; that one has ended, too.
    std::string texts;
    for (const auto& report : reports.Finish()) {
        texts += report.second + " ";
    }
    EXPECT_EQ("start end start document end end ", texts);
}

}  // namespace
