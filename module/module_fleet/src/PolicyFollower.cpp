#include "module/module_fleet/src/PolicyFollower.h"

#include <Poco/Exception.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "framework/Log.h"
#include "module/module_fleet/src/FleetNames.h"
#include "sdk/FileUtils.h"
#include "sdk/StringUtils.h"

namespace Fleet {

namespace {

constexpr std::size_t kMaxPolicy = 1 << 20;    // bytes, as the policy directory has it
constexpr int kNewsBytes = 16 << 10;           // it is headers only
constexpr char kOperation[] = "KV-Operation";  // of a value that was removed
// The replica that answers may lag a little, and news may get lost.
constexpr auto kSecondReading = std::chrono::seconds(1);
constexpr auto kThirdReading = std::chrono::seconds(10);
constexpr auto kFurtherReadings = std::chrono::minutes(5);

Json::Value Describe(const std::string& key, std::uint64_t revision, const std::string& text) {
    Json::Value value;
    value["source"] = key;
    value["revision"] = Json::UInt64(revision);
    value["hash"] = SDK::StringUtils::Sha256(text);
    return value;
}

Json::Value Describe(const std::vector<Framework::Finding>& findings) {
    Json::Value list(Json::arrayValue);
    for (const Framework::Finding& finding : findings) {
        Json::Value value;
        value["severity"] = Name(finding.severity);
        value["key"] = finding.key;
        value["problem"] = finding.problem;
        value["advice"] = finding.advice;
        list.append(value);
    }
    return list;
}

std::string Refusal(const std::vector<Framework::Finding>& findings) {
    const auto refusing =
        std::find_if(findings.begin(), findings.end(),
                     [](const Framework::Finding& finding) { return finding.refuses; });
    return refusing == findings.end() ? "" : ": " + Framework::Describe(*refusing);
}

}  // namespace

PolicyFollower::PolicyFollower(const std::string& host, const std::vector<std::string>& groups,
                               std::string file, Judge judge)
    : file_(std::move(file)), judge_(std::move(judge)) {
    const auto add = [this](const std::string& key) {
        sources_.emplace_back();
        sources_.back().key = key;
    };
    add("host." + Escape(host));
    for (const std::string& group : groups) {
        add("group." + Escape(group));
    }
    add("all");
    SetFollowed(Json::Value(Json::objectValue));
}

void PolicyFollower::Connect(natsConnection* connection) {
    stream_.reset();
    connection_ = connection;
    for (Source& source : sources_) {
        source.news.reset();
        source.revision = 0;
        source.exists = false;
        if (connection != nullptr) {
            source.news = Nats::Subscribe(connection, kPolicyChanges + source.key);
            // One that waits says it all.
            natsSubscription_SetPendingLimits(source.news.get(), 1, kNewsBytes);
        }
    }
    if (connection != nullptr) {
        jsCtx* stream = nullptr;
        Nats::Check(natsConnection_JetStream(&stream, connection, nullptr), "JetStream");
        stream_.reset(stream);
    }
    due_ = {};
    wait_ = kSecondReading;
}

void PolicyFollower::Work() {
    if (connection_ == nullptr) {
        return;
    }
    try {
        bool changed = TakeNews();
        if (Clock::now() >= due_) {
            for (Source& source : sources_) {
                Read(source);
            }
            due_ = Clock::now() + wait_;
            wait_ =
                wait_ == kSecondReading ? kThirdReading : std::chrono::seconds(kFurtherReadings);
            changed = true;
            backoff_.Reset();
            trouble_.clear();
        }
        if (changed) {
            Decide();
        }
    } catch (const Poco::IOException& e) {
        if (natsConnection_IsClosed(connection_)) {
            throw;
        }
        trouble_ = e.displayText();
        due_ = Clock::now() + backoff_.Next();
    }
}

bool PolicyFollower::TakeNews() {
    bool any = false;
    for (Source& source : sources_) {
        natsMsg* message = nullptr;
        const natsStatus status = natsSubscription_NextMsg(&message, source.news.get(), 0);
        natsMsg_Destroy(message);
        if (status == NATS_TIMEOUT) {
            continue;
        }
        if (status != NATS_SLOW_CONSUMER) {  // more came than waits
            Nats::Check(status, "news of policies");
        }
        // Not before all have been read once.
        if (due_ != Clock::time_point()) {
            Read(source);
            due_ = Clock::now() + kSecondReading;
            wait_ = kThirdReading;
            any = true;
        }
    }
    return any;
}

void PolicyFollower::Read(Source& source) {
    const std::string subject = SubjectOfPolicy(source.key);
    jsDirectGetMsgOptions last;
    jsDirectGetMsgOptions_Init(&last);
    last.LastBySubject = subject.c_str();
    natsMsg* found = nullptr;
    const natsStatus status = js_DirectGetMsg(&found, stream_.get(), kPolicyStream, nullptr, &last);
    if (status != NATS_NOT_FOUND) {
        Nats::Check(status, std::string("bucket ") + kPolicyBucket);
        const Nats::Msg message(found);
        const std::uint64_t revision = natsMsg_GetSequence(found);
        if (revision > source.revision) {
            source.revision = revision;
            source.exists = Nats::Header(found, kOperation).empty();
            source.text = source.exists ? Nats::Data(found) : "";
        }
    }
}

void PolicyFollower::Decide() {
    const auto source = std::find_if(sources_.begin(), sources_.end(),
                                     [](const Source& each) { return each.exists; });
    if (source == sources_.end()) {
        if (std::any_of(sources_.begin(), sources_.end(),
                        [](const Source& each) { return each.revision > 0; })) {
            Remove();
        }
        return;
    }
    Json::Value described = Describe(source->key, source->revision, source->text);
    const std::string what =
        Readable(source->key) + " revision " + std::to_string(source->revision);
    std::string current;
    const int error = SDK::FileUtils::ReadFile(file_, current, kMaxPolicy);
    if (error != 0 || current != source->text) {
        if (judged_ == what && followed_.isMember("refused")) {
            return;
        }
        judged_ = what;
        std::vector<Framework::Finding> findings;
        if (judge_(source->text, findings)) {
            described["findings"] = Describe(findings);
            followed_["refused"] = described;
            ++version_;
            Framework::Log().error("policy " + what + " of the fleet refused" + Refusal(findings));
            return;
        }
        if (const int failed = SDK::FileUtils::WriteFile(file_, source->text, false); failed != 0) {
            throw Poco::IOException("policy file " + file_, std::strerror(failed));
        }
        Framework::Log().information("policy " + what + " of the fleet written to " + file_);
    }
    described["file"] = file_.substr(file_.rfind('/') + 1);
    SetFollowed(described);
}

void PolicyFollower::Remove() {
    if (unlink(file_.c_str()) == 0) {
        Framework::Log().information("the fleet has no policy for this host any more: " + file_ +
                                     " removed");
    }
    SetFollowed(Json::Value(Json::objectValue));
}

void PolicyFollower::SetFollowed(Json::Value followed) {
    for (const Source& source : sources_) {
        followed["keys"].append(source.key);
    }
    if (followed != followed_) {
        followed_ = std::move(followed);
        ++version_;
    }
}

}  // namespace Fleet
