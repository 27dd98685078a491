#include "module/module_fleet/src/Cluster.h"

#include <Poco/Environment.h>
#include <Poco/Exception.h>
#include <Poco/StringTokenizer.h>

#include <filesystem>
#include <mutex>
#include <set>

#include "framework/Engine.h"
#include "framework/Log.h"
#include "module/module_fleet/src/FleetNames.h"

namespace Fleet {

namespace {

constexpr std::int64_t kConnectMs = 5000;
constexpr std::int64_t kPingMs = 20000;
constexpr int kPings = 2;
constexpr std::int64_t kWriteMs = 5000;

// What a server does not allow it tells on its own, beside the answer that does not come. Once each
// is enough: whatever is refused is tried again and again.
class Refusals {
public:
    static void Forget() {
        const std::lock_guard<std::mutex> lock(mutex_);
        texts_.clear();
    }
    static void Log(natsConnection* connection, natsSubscription* /*subscription*/,
                    natsStatus status, void* /*closure*/) {
        const char* text = nullptr;
        if (status != NATS_NOT_PERMITTED ||
            natsConnection_GetLastError(connection, &text) != status) {
            return;
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        if (texts_.size() < kMost && texts_.insert(text).second) {
            Framework::Log().error(std::string("fleet: the servers refuse: ") + text);
        }
    }

private:
    static constexpr std::size_t kMost = 100;
    static inline std::mutex mutex_;
    static inline std::set<std::string> texts_;  // since the connection was made
};

std::vector<std::string> List(const std::string& text) {
    const Poco::StringTokenizer words(
        text, ", ", Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    return {words.begin(), words.end()};
}

void AddStream(jsCtx* stream, jsStreamConfig& config) {
    jsErrCode code = {};
    natsStatus status = js_AddStream(nullptr, stream, &config, nullptr, &code);
    if (status != NATS_OK && code == JSStreamNameExistErr) {
        status = js_UpdateStream(nullptr, stream, &config, nullptr, nullptr);
    }
    Nats::Check(status, std::string("stream ") + config.Name);
}

// A bucket is a stream with a subject for each key. No message may take the place of all the others
// (a rollup): any host could send it under its own key.
void AddBucket(jsCtx* stream, const char* name, const std::string& subject, int replicas,
               jsRePublish* news) {
    const char* subjects[] = {subject.c_str()};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = name;
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.MaxMsgsPerSubject = 1;
    config.Discard = js_DiscardNew;
    config.Replicas = replicas;
    config.DenyDelete = true;
    config.AllowDirect = true;
    config.RePublish = news;
    AddStream(stream, config);
}

}  // namespace

std::vector<std::string> SettingKeys() {
    return {"fleet.servers",  "fleet.name",    "fleet.groups",     "fleet.tls.ca",
            "fleet.tls.cert", "fleet.tls.key", "fleet.credentials"};
}

Settings ReadSettings() {
    const auto& config = Framework::Engine::Instance().config();
    const auto get = [&](const std::string& key) { return config.getRawString(key, ""); };
    const auto path = [&](const std::string& key) {
        const std::string value = get(key);
        return value.empty() ? value : std::filesystem::absolute(value).string();
    };
    Settings settings;
    settings.servers = List(get("fleet.servers"));
    settings.name = get("fleet.name");
    if (settings.name.empty()) {
        settings.name = Poco::Environment::nodeName();
    }
    settings.groups = List(get("fleet.groups"));
    settings.ca = path("fleet.tls.ca");
    settings.certificate = path("fleet.tls.cert");
    settings.key = path("fleet.tls.key");
    settings.credentials = path("fleet.credentials");
    if (settings.certificate.empty() != settings.key.empty()) {
        throw Poco::InvalidArgumentException("fleet.tls.cert and fleet.tls.key go together");
    }
    return settings;
}

Nats::Connection Connect(const Settings& settings) {
    natsOptions* made = nullptr;
    Nats::Check(natsOptions_Create(&made), "options");
    const Nats::Options options(made);
    std::vector<const char*> servers;
    for (const std::string& server : settings.servers) {
        servers.push_back(server.c_str());
    }
    const auto check = [](natsStatus status, const std::string& what) {
        Nats::Check(status, what);
    };
    check(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())),
          "fleet.servers");
    // What was in flight is looked into anew with each connection: none comes back by itself.
    check(natsOptions_SetAllowReconnect(made, false), "options");
    check(natsOptions_SetName(made, settings.name.c_str()), "fleet.name");
    check(natsOptions_SetTimeout(made, kConnectMs), "options");
    check(natsOptions_SetPingInterval(made, kPingMs), "options");
    check(natsOptions_SetMaxPingsOut(made, kPings), "options");
    check(natsOptions_SetWriteDeadline(made, kWriteMs), "options");
    check(natsOptions_SetFailRequestsOnDisconnect(made, true), "options");
    check(natsOptions_SetErrorHandler(made, Refusals::Log, nullptr), "options");
    // An account can so be kept from reading what others are answered.
    check(natsOptions_SetCustomInboxPrefix(made, (kInboxes + Escape(settings.name)).c_str()),
          "options");
    if (!settings.ca.empty()) {
        check(natsOptions_SetSecure(made, true), "fleet.tls.ca");
        check(natsOptions_LoadCATrustedCertificates(made, settings.ca.c_str()),
              "fleet.tls.ca " + settings.ca);
    }
    if (!settings.certificate.empty()) {
        check(natsOptions_LoadCertificatesChain(made, settings.certificate.c_str(),
                                                settings.key.c_str()),
              "fleet.tls.cert " + settings.certificate);
    }
    if (!settings.credentials.empty()) {
        check(natsOptions_SetUserCredentialsFromFiles(made, settings.credentials.c_str(), nullptr),
              "fleet.credentials " + settings.credentials);
    }
    Refusals::Forget();
    natsConnection* connection = nullptr;
    check(natsConnection_Connect(&connection, made), "no connection");
    return Nats::Connection(connection);
}

void InitFleet(natsConnection* connection, int replicas) {
    jsCtx* made = nullptr;
    Nats::Check(natsConnection_JetStream(&made, connection, nullptr), "JetStream");
    const Nats::JetStream stream(made);

    const std::string reports = std::string(kReportSubjects) + ">";
    const char* subjects[] = {reports.c_str()};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = kReportStream;
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Replicas = replicas;
    config.AllowDirect = true;
    AddStream(made, config);

    // Hosts listen for news: a consumer each would be far more than the servers bear.
    const std::string source = SubjectOfPolicy(">");
    const std::string news_subject = std::string(kPolicyChanges) + ">";
    jsRePublish news;
    jsRePublish_Init(&news);
    news.Source = source.c_str();
    news.Destination = news_subject.c_str();
    news.HeadersOnly = true;
    AddBucket(made, kPolicyStream, source, replicas, &news);
    AddBucket(made, kHostStream, SubjectOfHosts(), replicas, nullptr);
}

}  // namespace Fleet
