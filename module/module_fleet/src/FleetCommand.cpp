#include "module/module_fleet/src/FleetCommand.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>
#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/StringTokenizer.h>
#include <Poco/Timestamp.h>
#include <Poco/Util/OptionException.h>
#include <sysexits.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>

#include "framework/Engine.h"
#include "module/module_fleet/src/Cluster.h"
#include "module/module_fleet/src/FleetNames.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/StringUtils.h"

namespace Fleet {

namespace {

using Poco::Util::InvalidArgumentException;
using SDK::StringUtils::ToPrintable;

constexpr char kPolicyType[] = "10001";
constexpr std::size_t kMaxPolicy = 1 << 20;
constexpr std::int64_t kAnswerMs = 10000;
constexpr int kMissedHeartbeats = 3;  // and a host counts as silent

constexpr char kHelp[] =
    "usage: watchpost fleet [--config=FILE] [--module-dir=DIR] COMMAND\n"
    "Commands and what they take:\n"
    "  init [--replicas=N]        Makes the stream of reports and the buckets of policies and "
    "hosts, in\n"
    "                             three replicas; again with another number changes that.\n"
    "  put KEY FILE               Checks the policy and gives it to the hosts of KEY: all, "
    "group.NAME or\n"
    "                             host.NAME; the most specific one is what a host follows.\n"
    "  get KEY                    Prints the policy.\n"
    "  remove KEY                 Takes the policy back.\n"
    "  hosts [--json]             Tells what each host follows. Exit status 1 when one is not "
    "well.\n"
    "  reports [--host=NAME] [--type=TYPE] [--since=TIME] [--follow] [--json]\n"
    "                             Prints reports, those since TIME (2026-11-22T20:15:03Z) and, "
    "with\n"
    "                             --follow, those to come.\n";

// The arguments of one command: what is an option, by its name, and what is none.
struct Arguments {
    std::map<std::string, std::string> options;
    std::vector<std::string> others;

    bool Has(const std::string& option) const { return options.count(option) != 0; }
    std::string Get(const std::string& option, const std::string& otherwise) const {
        const auto found = options.find(option);
        return found == options.end() ? otherwise : found->second;
    }
};

struct Client {
    Nats::Connection connection;
    Nats::JetStream stream;
};

Client Open() {
    const Settings settings = ReadSettings();
    if (settings.servers.empty()) {
        throw Poco::NotFoundException("fleet.servers is not in the configuration file");
    }
    Client client;
    client.connection = Connect(settings);
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = kAnswerMs;
    jsCtx* stream = nullptr;
    Nats::Check(natsConnection_JetStream(&stream, client.connection.get(), &options), "JetStream");
    client.stream.reset(stream);
    return client;
}

// The key of the bucket for what a person writes.
std::string PolicyKey(const std::string& text) {
    const std::size_t dot = text.find('.');
    const std::string kind = text.substr(0, dot);
    if (text == "all") {
        return text;
    }
    if ((kind != "host" && kind != "group") || dot == std::string::npos || dot + 1 == text.size()) {
        throw InvalidArgumentException("KEY is all, group.NAME or host.NAME, not " + text);
    }
    return kind + "." + Escape(text.substr(dot + 1));
}

// Calls `take` with each message of the stream on the subject, since a time in nanoseconds, to the
// last one there is, or for ever.
void ForEach(const Client& client, const char* stream, const std::string& subject,
             std::int64_t since, bool follow, const std::function<void(natsMsg*)>& take) {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.FilterSubject = subject.c_str();
    config.DeliverPolicy = since == 0 ? js_DeliverAll : js_DeliverByStartTime;
    config.OptStartTime = since;
    Nats::StreamReader reader(client.stream.get(), stream, config);
    for (std::uint64_t read = 0; follow || read < reader.Pending();) {
        const std::uint64_t more = reader.Read(kAnswerMs, take);
        if (more == 0 && !follow) {
            throw Poco::TimeoutException("the servers do not answer");
        }
        read += more;
    }
}

int Init(const Arguments& arguments) {
    int replicas = 0;
    const std::string text = arguments.Get("replicas", "3");
    if (!Poco::NumberParser::tryParse(text, replicas) || replicas < 1 || replicas > 5) {
        throw InvalidArgumentException("--replicas must be a number from 1 to 5, not " + text);
    }
    InitFleet(Open().connection.get(), replicas);
    std::cout << "The fleet's stream and buckets have " << replicas << " replicas.\n";
    return EX_OK;
}

void Publish(const Client& client, const std::string& key, const std::string& text,
             const char* operation) {
    natsMsg* made = nullptr;
    Nats::Check(natsMsg_Create(&made, SubjectOfPolicy(key).c_str(), nullptr, text.data(),
                               static_cast<int>(text.size())),
                "message");
    const Nats::Msg message(made);
    if (operation != nullptr) {
        Nats::Check(natsMsgHeader_Set(made, "KV-Operation", operation), "message");
    }
    jsPubAck* ack = nullptr;
    Nats::Check(js_PublishMsg(&ack, client.stream.get(), made, nullptr, nullptr),
                std::string("bucket ") + kPolicyBucket);
    std::cout << Readable(key) << ": revision " << ack->Sequence << '\n';
    jsPubAck_Destroy(ack);
}

int Put(const Arguments& arguments) {
    const std::string key = PolicyKey(arguments.others[0]);
    const std::string& file = arguments.others[1];
    std::string text;
    if (const int error = SDK::FileUtils::ReadFile(file, text, kMaxPolicy); error != 0) {
        throw Poco::FileException(file, std::strerror(error));
    }
    std::vector<Framework::Finding> findings;
    bool judged = false;
    for (auto& module : Framework::Engine::Instance().Modules()) {
        judged |= module->JudgePolicy(kPolicyType, text, false, findings);
    }
    if (!judged) {
        throw Poco::NotFoundException("no module that could check the policy");
    }
    bool bad = false;
    for (const Framework::Finding& finding : findings) {
        bad = bad || finding.severity == Framework::Severity::kError;
        std::cerr << Name(finding.severity) << ": " << ToPrintable(Framework::Describe(finding))
                  << '\n';
    }
    if (bad) {
        std::cerr << "The policy is not put.\n";
        return EX_DATAERR;
    }
    Publish(Open(), key, text, nullptr);
    return EX_OK;
}

int Remove(const Arguments& arguments) {
    Publish(Open(), PolicyKey(arguments.others[0]), "", "DEL");
    return EX_OK;
}

int Get(const Arguments& arguments) {
    const Client client = Open();
    const std::string subject = SubjectOfPolicy(PolicyKey(arguments.others[0]));
    natsMsg* found = nullptr;
    const natsStatus status = js_GetLastMsg(&found, client.stream.get(), kPolicyStream,
                                            subject.c_str(), nullptr, nullptr);
    const Nats::Msg message(found);
    if (status == NATS_NOT_FOUND ||
        (status == NATS_OK && !Nats::Header(found, "KV-Operation").empty())) {
        std::cerr << "There is no policy for " << ToPrintable(arguments.others[0]) << ".\n";
        return EXIT_FAILURE;
    }
    Nats::Check(status, std::string("bucket ") + kPolicyBucket);
    std::cout << Nats::Data(found);
    return EX_OK;
}

// The revision of each policy there is.
std::map<std::string, std::uint64_t> Revisions(const Client& client) {
    std::map<std::string, std::uint64_t> revisions;
    const std::string start = SubjectOfPolicy("");
    ForEach(client, kPolicyStream, start + ">", 0, false, [&](natsMsg* message) {
        revisions[natsMsg_GetSubject(message) + start.size()] = Nats::PlaceOf(message).sequence;
    });
    return revisions;
}

// The host whose report or state it is, by the subject: only that is known to be true.
std::string HostOf(const natsMsg* message) {
    const Poco::StringTokenizer tokens(natsMsg_GetSubject(message), ".");
    std::string name = tokens[2];
    Unescape(name, name);
    return name;
}

// What is to be said of a host, by what it has told, which may be anything, and when the servers
// got it.
std::string Judge(const Json::Value& host, std::int64_t age,
                  const std::map<std::string, std::uint64_t>& revisions) {
    Json::Value policy, conditions, refused;
    if (age >
        std::int64_t{kMissedHeartbeats} * SDK::JsonUtils::GetIntValue(host, "heartbeat_s", 30)) {
        return "silent";
    }
    if (!SDK::JsonUtils::GetSubobjectValue(host, "policy", policy) ||
        !SDK::JsonUtils::GetArrayValue(host, "conditions", conditions) ||
        !SDK::JsonUtils::GetArrayValue(host, "refused", refused)) {
        return "wrong";
    }
    if (policy.isMember("refused") || !refused.empty()) {
        return "refused";
    }
    const auto current = revisions.find(SDK::JsonUtils::GetStringValue(policy, "source", ""));
    if (current != revisions.end() && policy["revision"] != Json::Int64(current->second)) {
        return "differs";
    }
    const bool good = std::all_of(conditions.begin(), conditions.end(), [](const auto& condition) {
        return SDK::JsonUtils::GetBoolValue(condition, "good", false);
    });
    return good ? "well" : "wrong";
}

void PrintHost(const Json::Value& host) {
    const auto get = [](const Json::Value& value, const char* key) {
        return SDK::JsonUtils::GetStringValue(value, key, "-");
    };
    Json::Value policy;
    SDK::JsonUtils::GetSubobjectValue(host, "policy", policy);
    const int revision = SDK::JsonUtils::GetIntValue(policy, "revision", 0);
    std::cout << std::left << std::setw(23) << ToPrintable(get(host, "host")) << ' ' << std::setw(9)
              << get(host, "state") << std::setw(23) << ToPrintable(Readable(get(policy, "source")))
              << ' ' << std::setw(10) << (revision > 0 ? std::to_string(revision) : "-")
              << std::setw(10) << ToPrintable(get(host, "version")) << host["age_s"].asString()
              << " s ago\n";
}

int Hosts(const Arguments& arguments) {
    const Client client = Open();
    const std::map<std::string, std::uint64_t> revisions = Revisions(client);
    std::map<std::string, Json::Value> hosts;
    const std::int64_t now = Poco::Timestamp().epochTime();
    ForEach(client, kHostStream, SubjectOfHosts(), 0, false, [&](natsMsg* message) {
        const std::string text = Nats::Data(message);
        Json::Value host;
        if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), host) != 0 || !host.isObject()) {
            host = Json::Value(Json::objectValue);
        }
        const std::string name = HostOf(message);
        const std::int64_t told = Nats::PlaceOf(message).time / 1'000'000'000;
        host["host"] = name;
        host["age_s"] = Json::Int64(std::max<std::int64_t>(now - told, 0));
        host["state"] = Judge(host, host["age_s"].asInt64(), revisions);
        hosts[name] = host;
    });
    const bool json = arguments.Has("json");
    bool well = true;
    Json::Value list(Json::arrayValue);
    if (!json) {
        std::cout << std::left << std::setw(24) << "HOST" << std::setw(9) << "STATE"
                  << std::setw(24) << "POLICY" << std::setw(10) << "REVISION" << std::setw(10)
                  << "VERSION"
                  << "HEARD\n";
    }
    for (const auto& [name, host] : hosts) {
        well = well && host["state"] == "well";
        json ? static_cast<void>(list.append(host)) : PrintHost(host);
    }
    if (json) {
        std::cout << SDK::JsonUtils::JsonToString(list) << '\n';
    }
    return well ? EX_OK : EXIT_FAILURE;
}

void PrintReport(natsMsg* message, bool json) {
    const std::string line = Nats::Data(message);
    Json::Value report;
    if (json) {
        std::cout << line << '\n';
        return;
    }
    if (SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), report) != 0 || !report.isObject()) {
        std::cout << ToPrintable(line) << '\n';
        return;
    }
    const auto get = [&](const char* key) {
        return ToPrintable(SDK::JsonUtils::GetStringValue(report, key, ""));
    };
    std::cout << get("time") << ' ' << ToPrintable(HostOf(message)) << ' ' << get("type") << ' '
              << ToPrintable(SDK::JsonUtils::JsonToString(report["content"])) << '\n';
}

int Reports(const Arguments& arguments) {
    const auto token = [&](const char* option) {
        const std::string name = arguments.Get(option, "");
        return name.empty() ? "*" : Escape(name);
    };
    std::int64_t since = 0;
    if (arguments.Has("since")) {
        int zone = 0;
        Poco::DateTime time;
        if (!Poco::DateTimeParser::tryParse("%Y-%m-%dT%H:%M:%S%z", arguments.Get("since", ""), time,
                                            zone)) {
            throw InvalidArgumentException("--since is a time as 2026-11-22T20:15:03Z, not " +
                                           arguments.Get("since", ""));
        }
        time.makeUTC(zone);
        since = time.timestamp().epochMicroseconds() * 1000;
    }
    const Client client = Open();
    const bool follow = arguments.Has("follow");
    const std::string subject = kReportSubjects + token("host") + "." + token("type");
    ForEach(client, kReportStream, subject, since, follow, [&](natsMsg* message) {
        PrintReport(message, arguments.Has("json"));
        if (follow) {
            std::cout << std::flush;
        }
    });
    return EX_OK;
}

struct Command {
    const char* name;
    std::size_t others;                // how many arguments that are no options
    std::vector<const char*> options;  // "=" behind those that take a value
    int (*run)(const Arguments& arguments);
};

const Command kCommands[] = {
    {"init", 0, {"replicas="}, Init},
    {"put", 2, {}, Put},
    {"get", 1, {}, Get},
    {"remove", 1, {}, Remove},
    {"hosts", 0, {"json"}, Hosts},
    {"reports", 0, {"host=", "type=", "since=", "follow", "json"}, Reports},
};

Arguments Parse(const Command& command, const std::vector<std::string>& words) {
    Arguments arguments;
    for (const std::string& word : words) {
        if (word.rfind("--", 0) != 0) {
            arguments.others.push_back(word);
            continue;
        }
        const std::size_t sign = word.find('=');
        const std::string option = word.substr(2, sign == std::string::npos ? sign : sign - 1);
        if (std::find(command.options.begin(), command.options.end(), option) ==
            command.options.end()) {
            throw Poco::Util::UnknownOptionException(word);
        }
        arguments.options[word.substr(2, sign - 2)] =
            sign == std::string::npos ? "" : word.substr(sign + 1);
    }
    if (arguments.others.size() != command.others) {
        throw InvalidArgumentException(std::string(command.name) + " takes " +
                                       std::to_string(command.others) + " arguments, not " +
                                       std::to_string(arguments.others.size()));
    }
    return arguments;
}

}  // namespace

int RunFleetCommand(const std::vector<std::string>& arguments) {
    if (std::find(arguments.begin(), arguments.end(), "--help") != arguments.end()) {
        std::cout << kHelp;
        return EX_OK;
    }
    const auto command = std::find_if(
        std::begin(kCommands), std::end(kCommands),
        [&](const Command& each) { return !arguments.empty() && arguments[0] == each.name; });
    if (command == std::end(kCommands)) {
        throw InvalidArgumentException(arguments.empty() ? "a command is missing"
                                                         : "unknown command fleet " + arguments[0]);
    }
    return command->run(Parse(*command, {arguments.begin() + 1, arguments.end()}));
}

}  // namespace Fleet
