#include "module/module_fleet/src/FleetCommand.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>
#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/RegularExpression.h>
#include <Poco/StringTokenizer.h>
#include <Poco/Timestamp.h>
#include <Poco/Util/OptionException.h>
#include <poll.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <thread>
#include <utility>

#include "framework/Engine.h"
#include "module/module_fleet/src/Backoff.h"
#include "module/module_fleet/src/Cluster.h"
#include "module/module_fleet/src/FleetNames.h"
#include "module/module_fleet/src/HostJudgement.h"
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
constexpr std::int64_t kFollowMs = 1000;
constexpr char kOperation[] = "KV-Operation";  // of a value that was removed

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
    "  forget HOST                Drops a host that is gone for good from these.\n"
    "  reports [--host=NAME] [--type=TYPE] [--since=TIME] [--follow] [--json]\n"
    "                             Prints reports, those that came since TIME "
    "(2026-11-22T20:15:03Z) "
    "and, with\n"
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

struct Failure {
    int status;
    std::string text;
};

struct Client {
    Nats::Connection connection;
    Nats::JetStream stream;
};

Client Open() {
    const Settings settings = ReadSettings();
    if (settings.servers.empty()) {
        throw Failure{EX_CONFIG, "fleet.servers is not in the configuration file"};
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

jsConsumerConfig From(const std::string& subject) {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.FilterSubject = subject.c_str();
    return config;
}

// Whether anybody takes what is printed. Of a pipe that its reader has left the kernel tells so.
bool IsOutputOpen() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return std::cout.good() && (poll(&output, 1, 0) <= 0 || (output.revents & POLLERR) == 0);
}

// Calls `take` with each message that the stream has now by this configuration.
void ForEach(const Client& client, const char* stream, const jsConsumerConfig& config,
             const std::function<void(natsMsg*)>& take) {
    Nats::StreamReader reader(client.stream.get(), stream, config);
    for (std::uint64_t read = 0; read < reader.Pending() && IsOutputOpen();) {
        const std::uint64_t more = reader.Read(kAnswerMs, take);
        if (more == 0) {
            throw Failure{EX_UNAVAILABLE, "the servers do not answer"};
        }
        read += more;
    }
}
void ForEach(const Client& client, const char* stream, const std::string& subject,
             const std::function<void(natsMsg*)>& take) {
    ForEach(client, stream, From(subject), take);
}

// The same, and with each that comes, as long as somebody takes what is printed; through other
// servers when some are lost.
void Follow(const char* stream, jsConsumerConfig config,
            const std::function<void(natsMsg*)>& take) {
    Client client = Open();
    Backoff backoff;
    bool began = false;
    bool lost = false;
    while (IsOutputOpen()) {
        try {
            if (natsConnection_IsClosed(client.connection.get())) {
                client = Open();
            }
            Nats::StreamReader reader(client.stream.get(), stream, config);
            began = true;
            while (IsOutputOpen()) {
                reader.Read(kFollowMs, [&](natsMsg* message) {
                    take(message);
                    config.DeliverPolicy = js_DeliverByStartSequence;
                    config.OptStartTime = 0;
                    config.OptStartSeq = Nats::PlaceOf(message).sequence + 1;
                });
                std::cout << std::flush;
                lost = false;
                backoff.Reset();
            }
        } catch (const Poco::IOException& e) {
            if (!began) {
                throw;
            }
            if (!std::exchange(lost, true)) {
                std::cerr << "watchpost: " << ToPrintable(e.message()) << "; trying again\n";
            }
            std::this_thread::sleep_for(backoff.Next());
        }
    }
}

int Init(const Arguments& arguments) {
    int replicas = 0;
    const std::string text = arguments.Get("replicas", "3");
    if (!Poco::NumberParser::tryParse(text, replicas) || replicas < 1 || replicas > 5) {
        throw InvalidArgumentException("--replicas must be a number from 1 to 5, not " + text);
    }
    InitFleet(Open().connection.get(), replicas);
    std::cout << "Replicas of the fleet's stream and of each bucket: " << replicas << ".\n";
    return EX_OK;
}

bool IsRemoval(natsMsg* message) {
    return !Nats::Header(message, kOperation).empty();
}

// The value that the bucket, which is this stream, has under the subject; none when it has none.
Nats::Msg Value(const Client& client, const char* bucket, const std::string& subject) {
    natsMsg* found = nullptr;
    const natsStatus status =
        js_GetLastMsg(&found, client.stream.get(), bucket, subject.c_str(), nullptr, nullptr);
    Nats::Msg message(found);
    if (status == NATS_NOT_FOUND || (status == NATS_OK && IsRemoval(found))) {
        return nullptr;
    }
    Nats::Check(status, bucket);
    return message;
}

// Puts the text, or takes back what is there; returns the revision.
std::uint64_t Publish(const Client& client, const std::string& subject, const std::string* text) {
    natsMsg* made = nullptr;
    Nats::Check(
        natsMsg_Create(&made, subject.c_str(), nullptr, text == nullptr ? nullptr : text->data(),
                       text == nullptr ? 0 : static_cast<int>(text->size())),
        "message");
    const Nats::Msg message(made);
    if (text == nullptr) {
        Nats::Check(natsMsgHeader_Set(made, kOperation, "DEL"), "message");
    }
    jsPubAck* ack = nullptr;
    Nats::Check(js_PublishMsg(&ack, client.stream.get(), made, nullptr, nullptr), "publishing");
    const std::uint64_t revision = ack->Sequence;
    jsPubAck_Destroy(ack);
    return revision;
}

void PrintRevision(const std::string& key, std::uint64_t revision) {
    std::cout << Readable(key) << ": revision " << revision << '\n';
}

int Put(const Arguments& arguments) {
    const std::string key = PolicyKey(arguments.others[0]);
    const std::string& file = arguments.others[1];
    std::string text;
    if (const int error = SDK::FileUtils::ReadFile(file, text, kMaxPolicy); error != 0) {
        throw Failure{EX_NOINPUT, file + ": " + std::strerror(error)};
    }
    std::vector<Framework::Finding> findings;
    bool judged = false;
    for (auto& module : Framework::Engine::Instance().Modules()) {
        judged |= module->JudgePolicy(kPolicyType, text, false, findings);
    }
    if (!judged) {
        throw Failure{EX_UNAVAILABLE, "no module takes policies"};
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
    PrintRevision(key, Publish(Open(), SubjectOfPolicy(key), &text));
    return EX_OK;
}

int Get(const Arguments& arguments) {
    const std::string subject = SubjectOfPolicy(PolicyKey(arguments.others[0]));
    const Client client = Open();
    const Nats::Msg message = Value(client, kPolicyStream, subject);
    if (message == nullptr) {
        throw Failure{EXIT_FAILURE, "there is no policy for " + arguments.others[0]};
    }
    std::cout << Nats::Data(message.get());
    return EX_OK;
}

int Remove(const Arguments& arguments) {
    const std::string key = PolicyKey(arguments.others[0]);
    const Client client = Open();
    if (Value(client, kPolicyStream, SubjectOfPolicy(key)) == nullptr) {
        throw Failure{EXIT_FAILURE, "there is no policy for " + arguments.others[0]};
    }
    PrintRevision(key, Publish(client, SubjectOfPolicy(key), nullptr));
    return EX_OK;
}

int Forget(const Arguments& arguments) {
    const std::string& host = arguments.others[0];
    const Client client = Open();
    if (Value(client, kHostStream, SubjectOfHost(host)) == nullptr) {
        throw Failure{EXIT_FAILURE, "there is no host " + host};
    }
    Publish(client, SubjectOfHost(host), nullptr);
    return EX_OK;
}

Revisions ReadRevisions(const Client& client) {
    Revisions revisions;
    const std::string start = SubjectOfPolicy("");
    ForEach(client, kPolicyStream, start + ">", [&](natsMsg* message) {
        if (!IsRemoval(message)) {
            revisions[natsMsg_GetSubject(message) + start.size()] = Nats::PlaceOf(message).sequence;
        }
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
    const std::string why = ToPrintable(host["why"].asString());
    if (!why.empty()) {
        std::cout << "    " << why << '\n';
    }
}

int Hosts(const Arguments& arguments) {
    const Client client = Open();
    const Revisions revisions = ReadRevisions(client);
    std::map<std::string, Json::Value> hosts;
    const std::int64_t now = Poco::Timestamp().epochTime();
    ForEach(client, kHostStream, SubjectOfHosts(), [&](natsMsg* message) {
        if (IsRemoval(message)) {
            return;
        }
        const std::string text = Nats::Data(message);
        Json::Value host;
        if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), host) != 0 || !host.isObject()) {
            host = Json::Value(Json::objectValue);
        }
        const std::string name = HostOf(message);
        const std::int64_t told = Nats::PlaceOf(message).time / 1'000'000'000;
        host["host"] = name;
        host["age_s"] = Json::Int64(std::max<std::int64_t>(now - told, 0));
        const Judgement judgement = JudgeHost(host, host["age_s"].asInt64(), revisions);
        host["state"] = judgement.state;
        host["why"] = judgement.why;
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

// A moment as a person writes it, in nanoseconds since the epoch.
std::int64_t Nanoseconds(const std::string& text) {
    static const Poco::RegularExpression kForm(
        "^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d(Z|[+-]\\d\\d:\\d\\d)$");
    int zone = 0;
    Poco::DateTime time;
    if (!kForm.match(text) ||
        !Poco::DateTimeParser::tryParse("%Y-%m-%dT%H:%M:%S%z", text, time, zone)) {
        throw InvalidArgumentException("--since is a time as 2026-11-22T20:15:03Z, not " + text);
    }
    time.makeUTC(zone);
    // For the servers 0 is no moment at all, and the last one is in 2262.
    constexpr std::int64_t kSecond = 1'000'000'000;
    constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max() / kSecond;
    return std::clamp<std::int64_t>(time.timestamp().epochTime(), 1, kLast) * kSecond;
}

int Reports(const Arguments& arguments) {
    const auto token = [&](const char* option) {
        const std::string name = arguments.Get(option, "");
        return name.empty() ? "*" : Escape(name);
    };
    const std::string subject = kReportSubjects + token("host") + "." + token("type");
    jsConsumerConfig config = From(subject);
    if (arguments.Has("since")) {
        config.DeliverPolicy = js_DeliverByStartTime;
        config.OptStartTime = Nanoseconds(arguments.Get("since", ""));
    }
    const auto print = [json = arguments.Has("json")](natsMsg* message) {
        PrintReport(message, json);
    };
    arguments.Has("follow") ? Follow(kReportStream, config, print)
                            : ForEach(Open(), kReportStream, config, print);
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
    {"forget", 1, {}, Forget},
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
    const auto tell = [](int status, const std::string& text) {
        std::cerr << "watchpost: " << ToPrintable(text) << '\n';
        return status;
    };
    try {
        return command->run(Parse(*command, {arguments.begin() + 1, arguments.end()}));
    } catch (const Failure& failure) {
        return tell(failure.status, failure.text);
    } catch (const Poco::IOException& e) {
        const bool missing = e.code() == NATS_NO_RESPONDERS ||
                             e.message().find("stream not found") != std::string::npos;
        return tell(EX_UNAVAILABLE,
                    e.message() + (missing ? " (has watchpost fleet init been run?)" : ""));
    }
}

}  // namespace Fleet
