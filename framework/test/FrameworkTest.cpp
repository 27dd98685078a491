#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "framework/Engine.h"
#include "test/support/TestSupport.h"

namespace {

using Framework::EnqueueResult;
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
    // What has happened since the previous call.
    Strings Take() {
        const Lock lock(mutex_);
        return std::exchange(events_, {});
    }
    bool Awaits(const std::string& last) {
        return Await([&] {
            const Lock lock(mutex_);
            return !events_.empty() && events_.back() == last;
        });
    }

private:
    std::mutex mutex_;
    Strings events_;
};

// A task that calls `step` with "Init", "Run", "UnInit", "gone", or the text of a message.
class Probe : public Framework::Task {
public:
    Probe(const std::string& name, int period, Step step, std::size_t capacity = 1024)
        : Task(name, "", TaskCondition::kPeriodic, capacity), step_(std::move(step)) {
        Framework::TaskPolicy policy(name);
        policy.SetCondition(TaskCondition::kPeriodSeconds, period);
        Attach(nullptr, policy);
    }
    int init_result = 1;
    std::atomic<int> turned_away{0};  // how often a message found no room

    int Init() override {
        step_("Init");
        return init_result;
    }
    int Run() override {
        step_("Run");
        return 0;
    }
    void UnInit() override { step_("UnInit"); }
    void HandleMsg(const Framework::Message* message) override {
        step_(dynamic_cast<const Framework::DataMessage&>(*message).Content());
    }
    EnqueueResult EnqueueMsg(std::shared_ptr<Framework::Message>& message) override {
        const EnqueueResult result = Task::EnqueueMsg(message);
        turned_away += result == EnqueueResult::kFull ? 1 : 0;
        return result;
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
        SCOPED_TRACE(sender_is_stopped);
        Events events;
        std::mutex gate;
        std::atomic<int> sent{0};
        const auto handle = [&](const std::string& step) {
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
        const int turned_away = receiver->turned_away;
        EXPECT_TRUE(Await([&] { return receiver->turned_away > turned_away + 1; }));
        EXPECT_EQ(3, sent);
        if (sender_is_stopped) {
            sender->RequestStop();
        } else {
            closed.unlock();
        }
        EXPECT_TRUE(Await([&] { return sent == 9; }));
        receiver->RequestStop();
        closed = {};
        engine.StopTask("sender");
        engine.StopTask("receiver");
        EXPECT_EQ((Strings{"Init", "0", "1", "2", "3", "4", "5", "6", "7", "8", "UnInit", "gone"}),
                  events.Take());
    }
}

TEST(Task, UnknownReceiversAreReportedOnceEach) {
    const LogCapture log("watchpost");
    Probe* task = nullptr;
    task = new Probe("sender", 0, [&task](const std::string& step) {
        for (const char* const name : {"nobody", "no one", "nobody"}) {
            if (step == "Init" || step == "UnInit") {
                task->Send(name, "lost");
            }
        }
    });
    EXPECT_TRUE(engine.StartTask(task));
    engine.StopTask("sender");
    EXPECT_EQ((Strings{"3 messages for the task nobody are dropped: it does not run",
                       "3 messages for the task no one are dropped: it does not run"}),
              log.Lines());
}

TEST(Task, RunsAtOnceAndThenOnceAPeriodWithoutCatchingUp) {
    std::vector<Clock::time_point> starts;
    Clock::time_point long_cycle_end;
    std::atomic<int> runs{0};
    std::atomic<int> busy_runs{0};
    Events rare;
    Probe* busy = nullptr;
    engine.StartTask(new Probe("rare", 3600, [&](const std::string& step) { rare.Add(step); }));
    engine.StartTask(new Probe("frequent", 1, [&](const std::string& step) {
        if (step == "Run") {
            starts.push_back(Clock::now());
            if (starts.size() == 1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2100));
                long_cycle_end = Clock::now();
            }
            ++runs;
        }
    }));
    // Each message it handles sends the next one: the queue is never empty.
    busy = new Probe("busy", 1, [&](const std::string& step) {
        busy_runs += step == "Run" ? 1 : 0;
        if (step == "Init" || step == "message") {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            busy->Send("busy", "message");
        }
    });
    engine.StartTask(busy);
    EXPECT_TRUE(Await([&] { return busy_runs > 2 && runs > 2; }, std::chrono::seconds(15)));
    for (const char* const name : {"busy", "frequent", "rare"}) {
        engine.StopTask(name);
    }
    EXPECT_EQ((Strings{"Init", "Run", "UnInit", "gone"}), rare.Take());
    // However late a run is, the n-th one after the long cycle has n - 1 whole periods before it.
    for (std::size_t i = 1; i < starts.size(); ++i) {
        EXPECT_GE(starts[i] - long_cycle_end, std::chrono::seconds(i - 1)) << "run " << i;
    }
}

TEST(Task, FaultsAreLoggedAndTheTaskLivesOn) {
    const LogCapture log("watchpost");
    Probe* task = nullptr;
    task = new Probe("faulty", 1, [&](const std::string& step) {
        if (step == "Init") {
            task->Send("faulty", "first");
            task->Send("faulty", "second");
        } else if (step == "Run") {
            throw Poco::RuntimeException("odd");
        } else if (step == "UnInit") {
            throw std::runtime_error("even");
        } else if (step != "gone") {
            throw 7;
        }
    });
    EXPECT_TRUE(engine.StartTask(task));
    EXPECT_TRUE(Await([&] { return log.Holding("3 task faulty: Run failed: ") > 1; }));
    engine.StopTask("faulty");
    EXPECT_LT(1, log.Count("3 task faulty: Run failed: Runtime exception: odd"));
    EXPECT_EQ(2, log.Count("3 task faulty: HandleMsg failed"));
    EXPECT_EQ(1, log.Count("3 task faulty: UnInit failed: even"));
    for (const bool throws : {true, false}) {
        Events events;
        auto* const unborn = new Probe("unborn", 1, [&](const std::string& step) {
            events.Add(step);
            if (throws && step == "Init") {
                throw std::runtime_error("even");
            }
        });
        unborn->init_result = 0;
        EXPECT_FALSE(engine.StartTask(unborn));
        EXPECT_EQ((Strings{"Init", "gone"}), events.Take());
        EXPECT_FALSE(engine.FindTask("unborn"));
    }
    EXPECT_EQ(1, log.Count("3 task unborn: Init failed: even"));
    EXPECT_EQ(2, log.Count("3 task unborn not started: its Init failed"));
}

TEST(TaskPolicy, TakesOnlyAPeriodOfAtLeastOneSecond) {
    Framework::TaskPolicy policy("task");
    for (const char* const good :
         {R"({"kind":10,"value":2147483647})", R"({"kind":10,"value":1})"}) {
        EXPECT_TRUE(policy.Parse(good)) << good;
    }
    const LogCapture log("watchpost");
    const Strings kBad = {R"({"kind":10,"value":0})",
                          R"({"kind":10,"value":4294967297})",
                          R"({"kind":10,"value":"5"})",
                          R"({"kind":9,"value":5})",
                          R"({"value":5})",
                          R"({"kind":10,"value":5)"};
    for (const auto& bad : kBad) {
        EXPECT_FALSE(policy.Parse(bad)) << bad;
        EXPECT_EQ(1, policy.Condition().value) << bad;
    }
    EXPECT_EQ(kBad.size(), log.Lines().size());
}

// A policy with one task policy; tells when it takes over.
class WorkerPolicy : public Framework::FeaturePolicy {
public:
    WorkerPolicy(Events& events, const std::string& hash, const std::string& task, int period,
                 int kind = TaskCondition::kPeriodSeconds)
        : FeaturePolicy("feature"), events_(events) {
        SetHash(hash);
        auto* const task_policy = new Framework::TaskPolicy(task);
        task_policy->SetCondition(kind, period);
        Add(task_policy);
    }
    bool Parse(const std::string& /*text*/) override { return true; }
    void Dispatch(Policy* previous) override {
        const bool flagged = previous != nullptr && previous->Changed();
        events_.Add(Hash() + (flagged ? " over flagged " + previous->Hash() : " in force"));
        FeaturePolicy::Dispatch(previous);
    }

private:
    Events& events_;
};

// A module whose documents give what the test says. Its task, "worker", tells its life, with the
// key of the document it follows.
class WorkerModule : public Framework::Module {
public:
    Events events;
    std::function<void()> on_run = [] {};
    Policy* in_force = nullptr;  // when the latest document came

    WorkerModule() : Module("workers") {
        RegisterPolicyCallback(
            "10001", new Framework::PolicyCallback<WorkerModule>(this, &WorkerModule::OnPolicy));
    }
    void Deliver(const std::string& key, const std::function<Policy*()>& gives) {
        gives_ = gives;
        DeliverPolicy("10001", key, "");
    }
    void DeliverGood(const std::string& key, bool enabled = true) {
        Deliver(key, [&] {
            auto* const policy = new WorkerPolicy(events, key, "worker", 3600);
            policy->SetEnabled(enabled);
            return policy;
        });
    }

private:
    Policy* OnPolicy(const std::string& key, const std::string& /*text*/, Policy*& current) {
        in_force = current;
        if (current != nullptr) {
            current->SetChanged(true);
        }
        RegisterTask(new Probe("worker", 0,
                               [this, key](const std::string& step) {
                                   events.Add(key + " " + step);
                                   if (step == "Run") {
                                       on_run();
                                       events.Add(key + " ran");
                                   }
                               }),
                     false);
        return gives_();
    }
    std::function<Policy*()> gives_;
};

class Delivery : public testing::Test {
protected:
    ~Delivery() override { module_->UnInit(); }

    const LogCapture log_{"watchpost"};
    Poco::AutoPtr<WorkerModule> module_{new WorkerModule};
    Events& events_ = module_->events;
};

TEST_F(Delivery, ReplacesATaskInOrderAndSwitchesItOff) {
    std::mutex gate;
    module_->on_run = [&gate] { const Lock wait(gate); };
    std::unique_lock<std::mutex> closed(gate);
    module_->DeliverGood("a");
    EXPECT_TRUE(events_.Awaits("a Run"));
    std::thread delivery([&] { module_->DeliverGood("b"); });
    EXPECT_TRUE(Await([] { return engine.FindTask("worker")->isCancelled(); }));
    EXPECT_EQ((Strings{"a in force", "a Init", "a Run"}), events_.Take());
    closed.unlock();
    delivery.join();
    EXPECT_TRUE(events_.Awaits("b ran"));
    EXPECT_EQ(
        (Strings{"a ran", "a UnInit", "a gone", "b over flagged a", "b Init", "b Run", "b ran"}),
        events_.Take());
    EXPECT_EQ(1, log_.Holding("policy with hash [b] takes over from hash [a]"));

    module_->DeliverPolicy("10002", "another type", "");
    EXPECT_EQ(Strings{}, events_.Take());
    module_->DeliverGood("off", false);
    EXPECT_EQ((Strings{"b UnInit", "b gone", "off over flagged b", "off gone"}), events_.Take());
    EXPECT_FALSE(engine.FindTask("worker"));
    module_->DeliverGood("c");
    EXPECT_TRUE(events_.Awaits("c ran"));
}

TEST_F(Delivery, WhatIsRefusedChangesNothing) {
    struct Case {
        const char* label;
        std::function<Policy*()> gives;
        int errors;
    };
    const std::vector<Case> kCases = {
        {"refused by the callback", [] { return nullptr; }, 0},
        {"no feature policy", [] { return new Framework::TaskPolicy("worker"); }, 1},
        {"another task's", [&] { return new WorkerPolicy(events_, "x", "other", 5); }, 2},
        {"period 0", [&] { return new WorkerPolicy(events_, "x", "worker", 0); }, 3},
        {"period -1", [&] { return new WorkerPolicy(events_, "x", "worker", -1); }, 4},
        {"kind 9", [&] { return new WorkerPolicy(events_, "x", "worker", 5, 9); }, 5},
        {"throws", []() -> Policy* { throw std::runtime_error("odd"); }, 5},
    };
    module_->DeliverGood("a");
    EXPECT_TRUE(events_.Awaits("a ran"));
    events_.Take();
    for (const Case& each : kCases) {
        SCOPED_TRACE(each.label);
        try {
            module_->Deliver("x", each.gives);
        } catch (const std::runtime_error&) {
            EXPECT_STREQ("throws", each.label);
        }
        EXPECT_EQ(Strings{"x gone"}, events_.Take());
        EXPECT_EQ(each.errors, log_.Holding("3 module workers: policy x refused: "));
        EXPECT_TRUE(engine.FindTask("worker"));
        EXPECT_FALSE(module_->in_force->Changed());
    }
    module_->DeliverGood("b");
    EXPECT_TRUE(events_.Awaits("b ran"));
    EXPECT_EQ((Strings{"a UnInit", "a gone", "b over flagged a", "b Init", "b Run", "b ran"}),
              events_.Take());
}

TEST(Modules, BadOnesAreOneErrorLineEachAndTheSoundOneWorks) {
    TestSupport::RunningReceiver reports;
    const LogCapture log("watchpost");
    const auto logged = [&](const Strings& pieces) {
        const Strings lines = log.Lines();
        bool all = lines.size() == pieces.size();
        for (std::size_t i = 0; all && i < lines.size(); ++i) {
            all = lines[i].find(pieces[i]) != std::string::npos;
        }
        return all;
    };
    engine.LoadModules(FIXTURE_DIR);
    EXPECT_TRUE(
        logged({"_factory_missing.so not loaded: ", "_factory_null.so not loaded: ",
                "_factory_throws.so not loaded: the factory failed",
                "_init_fails.so not loaded: ", "_no_library.so not loaded: ", "_sound.so loaded"}))
        << testing::PrintToString(log.Lines());
    EXPECT_EQ(5, log.Holding("3 module "));
    engine.DeliverPolicy("10001", "bad.json", "throw");
    EXPECT_EQ(1, log.Holding("3 policy bad.json not taken by module fixture"));
    engine.DeliverPolicy("10001", "good.json", "document");
    EXPECT_TRUE(engine.FindTask("document"));
    engine.StopModules();
    // The module that failed had started its task; that one has ended, too.
    std::string texts;
    for (const auto& report : reports.Finish()) {
        texts += report.second + " ";
    }
    EXPECT_EQ("start end start document end end ", texts);
    EXPECT_THROW(engine.LoadModules("/none"), Poco::Exception);
}

}  // namespace
