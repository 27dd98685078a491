#include "module/module_fleet/src/HostState.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/Timestamp.h>

#include "framework/Engine.h"
#include "module/module_fleet/src/FleetNames.h"
#include "sdk/JsonUtils.h"

namespace Fleet {

namespace {

constexpr std::chrono::milliseconds kLookInterval{2000};
constexpr std::chrono::milliseconds kHurriedInterval{200};
constexpr auto kHurry = std::chrono::seconds(3);  // a new file is in force by then
constexpr std::int64_t kPutMs = 3000;
constexpr Json::ArrayIndex kMaxEntries = 50;
constexpr std::size_t kMaxText = 300;

std::string Text(const std::string& text) {
    return text.size() <= kMaxText ? text : text.substr(0, kMaxText) + "...";
}

Json::Value Time(const Poco::Timestamp& time) {
    return time == 0 ? Json::Value()
                     : Json::Value(Poco::DateTimeFormatter::format(time, "%Y-%m-%dT%H:%M:%S.%iZ"));
}

// The list of what `describe` makes of the entries, the first ones.
template <typename Entries, typename Describe>
Json::Value List(const Entries& entries, Describe describe) {
    Json::Value list(Json::arrayValue);
    for (const auto& entry : entries) {
        if (list.size() < kMaxEntries) {
            list.append(describe(entry));
        }
    }
    return list;
}

// What stays the same as long as nothing happens.
Json::Value Lasting(const Framework::State& state) {
    Json::Value value;
    value["policies"] = List(state.policies, [](const Framework::PolicyState& policy) {
        Json::Value each;
        each["module"] = policy.module;
        each["key"] = policy.key;
        each["name"] = policy.name;
        each["id"] = Text(policy.id);
        each["hash"] = Text(policy.hash);
        each["enabled"] = policy.enabled;
        each["since"] = Time(policy.since);
        each["findings"] = List(policy.findings, [](const Framework::Finding& finding) {
            return Json::Value(std::string(Name(finding.severity)) + ": " +
                               Text(Framework::Describe(finding)));
        });
        return each;
    });
    value["refused"] = List(state.refused, [](const Framework::RefusedPolicy& refused) {
        Json::Value each;
        each["key"] = refused.key;
        each["time"] = Time(refused.when);
        each["why"] = Text(refused.why);
        return each;
    });
    value["conditions"] = List(state.conditions, [](const Framework::ModuleCondition& condition) {
        Json::Value each;
        each["module"] = condition.module;
        each["subject"] = Text(condition.condition.subject);
        each["good"] = condition.condition.good;
        each["text"] = Text(condition.condition.text);
        return each;
    });
    return value;
}

void AddPassing(const Framework::State& state, Json::Value& value) {
    value["tasks"] = List(state.tasks, [](const Framework::TaskStatus& task) {
        Json::Value each;
        each["name"] = task.name;
        each["began"] = Time(task.began);
        each["lasted_ms"] = Json::Int64(task.lasted.count());
        return each;
    });
    Json::Value& counts = value["counts"];
    counts["policies_accepted"] = Json::UInt64(state.deliveries.accepted);
    counts["policies_refused"] = Json::UInt64(state.deliveries.refused);
    for (const auto& module : state.figures) {
        for (const auto& [name, count] : module.figures.events) {
            counts[module.module + "." + name] = Json::UInt64(count);
        }
    }
}

}  // namespace

HostState::HostState(const std::string& host)
    : host_(host), since_(Time(Poco::Timestamp()).asString()) {}

void HostState::Connect(natsConnection* connection) {
    stream_.reset();
    connection_ = connection;
    if (connection != nullptr) {
        jsCtx* stream = nullptr;
        Nats::Check(natsConnection_JetStream(&stream, connection, nullptr), "JetStream");
        stream_.reset(stream);
    }
    next_look_ = heartbeat_ = {};
}

void HostState::Hurry() {
    next_look_ = {};
    hurry_end_ = Clock::now() + kHurry;
}

void HostState::Work(const Json::Value& policy) {
    const auto now = Clock::now();
    if (connection_ == nullptr || now < next_look_) {
        return;
    }
    next_look_ = now + (now < hurry_end_ ? kHurriedInterval : kLookInterval);
    const Framework::State state = Framework::Engine::Instance().GetState();
    Json::Value value = Lasting(state);
    value["host"] = host_;
    value["version"] = WATCHPOST_VERSION;
    value["since"] = since_;
    value["policy"] = policy;
    value["heartbeat_s"] = kHeartbeat;
    const std::string lasting = SDK::JsonUtils::JsonToString(value);
    if (lasting == told_ && now < heartbeat_) {
        return;
    }
    AddPassing(state, value);
    value["time"] = Time(Poco::Timestamp());
    try {
        Put(value);
    } catch (const Poco::IOException& e) {
        if (natsConnection_IsClosed(connection_)) {
            throw;
        }
        trouble_ = e.displayText();
        next_look_ = Clock::now() + backoff_.Next();
        return;
    }
    trouble_.clear();
    backoff_.Reset();
    told_ = lasting;
    constexpr int kMost = kHeartbeat * 1000;
    heartbeat_ = now + std::chrono::milliseconds(
                           std::uniform_int_distribution<int>(kMost * 4 / 5, kMost)(random_));
}

void HostState::Put(const Json::Value& value) {
    const std::string text = SDK::JsonUtils::JsonToString(value);
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = kPutMs;
    Nats::Check(js_Publish(nullptr, stream_.get(), SubjectOfHost(host_).c_str(), text.data(),
                           static_cast<int>(text.size()), &options, nullptr),
                std::string("bucket ") + kHostBucket);
}

}  // namespace Fleet
