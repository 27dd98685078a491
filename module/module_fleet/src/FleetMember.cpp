#include "module/module_fleet/src/FleetMember.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <exception>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "framework/Engine.h"
#include "framework/Log.h"

namespace Fleet {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kPolicyType[] = "10001";  // of every document in the policy directory
constexpr std::size_t kMaxPolicy = 1 << 20;
constexpr auto kSlice = std::chrono::milliseconds(100);
constexpr auto kIdle = std::chrono::milliseconds(250);  // until it looks again
constexpr auto kCheckpointInterval = std::chrono::seconds(1);
constexpr auto kSound = std::chrono::seconds(30);  // a connection that has lived so long

}  // namespace

FleetMember::FleetMember(Settings settings, const Files& files)
    : settings_(std::move(settings)),
      reports_(settings_.name, files.reports, files.checkpoint),
      policies_(settings_.name, settings_.groups, files.policy, Judge),
      state_(settings_.name) {
    thread_.setName("fleet");
    thread_.startFunc([this] { Run(); });
}

FleetMember::~FleetMember() {
    stopping_ = true;
    try {
        stop_.set();
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (connection_ != nullptr) {
                natsConnection_Close(connection_);
            }
        }
        thread_.join();
    } catch (const std::exception&) {
        // Poco's words for a thread that is not there.
    }
}

void FleetMember::Run() {
    // A policy is judged by all modules.
    while (!stopping_ && !Framework::Engine::Instance().HasLoadedModules()) {
        stop_.tryWait(kSlice.count());
    }
    while (!stopping_) {
        const auto began = Clock::now();
        try {
            Serve();
        } catch (...) {
            Note(Framework::DescribeException());
        }
        if (Clock::now() - began > kSound) {
            backoff_.Reset();
        }
        stop_.tryWait(stopping_ ? 0 : static_cast<long>(backoff_.Next().count()));
    }
}

void FleetMember::Serve() {
    const Nats::Connection connection = AwaitConnection();
    // Before the connection goes, all that was made through it does.
    const auto attach = [this](natsConnection* now) {
        reports_.Connect(now);
        policies_.Connect(now);
        state_.Connect(now);
        const std::lock_guard<std::mutex> lock(mutex_);
        connection_ = now;
    };
    const struct Detach {
        const std::function<void(natsConnection*)> attach;
        ReportPublisher& reports;
        ~Detach() {
            attach(nullptr);
            try {
                reports.WriteCheckpoint();
            } catch (...) {
                Framework::LogException({"fleet"});
            }
        }
    } detach{attach, reports_};
    if (connection == nullptr) {
        return;
    }
    attach(connection.get());
    char url[256] = "";
    natsConnection_GetConnectedUrl(connection.get(), url, sizeof(url));
    Framework::Log().information(std::string("connected to the fleet at ") + url);
    auto checkpoint = Clock::now() + kCheckpointInterval;
    while (!stopping_) {
        if (natsConnection_IsClosed(connection.get())) {
            throw Poco::IOException("the connection has ended");
        }
        const auto began = Clock::now();
        Work();
        if (began >= checkpoint) {
            reports_.WriteCheckpoint();
            checkpoint = began + kCheckpointInterval;
        }
        if (Clock::now() - began < kSlice / 2) {  // nothing to do
            stop_.tryWait(kIdle.count());
        }
    }
}

Nats::Connection FleetMember::AwaitConnection() {
    // On a thread that may be left alone, as nothing else ends the wait for a name server.
    struct Outcome {
        Nats::Connection connection;
        std::string why_not;
    };
    std::promise<Outcome> promise;
    std::future<Outcome> future = promise.get_future();
    std::thread([promise = std::move(promise), settings = settings_]() mutable {
        Outcome outcome;
        try {
            outcome.connection = Connect(settings);
        } catch (const Poco::Exception& e) {
            outcome.why_not = e.message();
        } catch (...) {
            outcome.why_not = Framework::DescribeException();
        }
        promise.set_value(std::move(outcome));
    }).detach();
    while (future.wait_for(kSlice) == std::future_status::timeout) {
        if (stopping_) {
            return nullptr;
        }
    }
    Outcome outcome = future.get();
    if (outcome.connection == nullptr) {
        throw Poco::IOException(outcome.why_not);
    }
    return std::move(outcome.connection);
}

void FleetMember::Work() {
    reports_.Work(kSlice);
    const std::uint64_t before = policies_.Version();
    policies_.Work();
    if (policies_.Version() != before) {
        state_.Hurry();
    }
    state_.Work(policies_.Followed());
    std::string trouble;
    for (const std::string* each : {&reports_.Trouble(), &policies_.Trouble(), &state_.Trouble()}) {
        trouble += (trouble.empty() || each->empty() ? "" : "; ") + *each;
    }
    Note(trouble);
}

void FleetMember::Note(const std::string& trouble) {
    const std::lock_guard<std::mutex> lock(mutex_);
    counts_ = reports_.Counts();
    if (trouble == trouble_ || stopping_) {
        return;
    }
    if (!trouble.empty()) {
        Framework::Log().warning("fleet: " + trouble + "; trying again");
    } else {
        Framework::Log().information("fleet: all is well");
    }
    trouble_ = trouble;
}

bool FleetMember::Judge(const std::string& text, std::vector<Framework::Finding>& findings) {
    using Framework::Finding;
    using Framework::Severity;
    bool judged = false;
    if (text.size() > kMaxPolicy) {
        findings.push_back({Severity::kError, "", "is larger than a policy may be", "", true});
    } else {
        for (auto& module : Framework::Engine::Instance().Modules()) {
            judged |= module->JudgeInTurn(kPolicyType, text, true, findings);
        }
        if (!judged) {
            findings.push_back(
                {Severity::kError, "", "no module of this host takes policies", "", true});
        }
    }
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.refuses; });
}

std::vector<Framework::Condition> FleetMember::Conditions() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return {{"fleet", trouble_.empty(),
             trouble_.empty() ? "connected, as " + settings_.name : trouble_}};
}

PublisherCounts FleetMember::Counts() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

}  // namespace Fleet
