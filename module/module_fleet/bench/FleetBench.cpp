// What a fleet costs: a cluster of three servers and many hosts, each with a connection, files and
// subjects of its own, all in one process. Exit status 1 when a report is lost or there twice.
//
// usage: fleet_bench [HOSTS]      (default 1000; in the sandbox only)

#include <Poco/Channel.h>
#include <Poco/Message.h>
#include <sys/resource.h>

#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <set>
#include <thread>

#include "framework/Log.h"
#include "module/module_fleet/src/FleetMember.h"
#include "module/module_fleet/test/NatsCluster.h"
#include "sdk/JsonUtils.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using TestSupport::Await;
using TestSupport::NatsCluster;

constexpr int kReports = 200'000;  // of all hosts together
constexpr auto kPatience = std::chrono::minutes(3);

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Of this process, in seconds.
double ProcessorTime() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void Must(bool held, const std::string& what) {
    if (!held) {
        std::cerr << "fleet_bench: " << what << std::endl;
        std::_Exit(EXIT_FAILURE);
    }
}

// The agent's log: when hosts were connected.
class Connections : public Poco::Channel {
public:
    void log(const Poco::Message& message) override {
        if (message.getText().find("connected to the fleet") == 0) {
            const std::lock_guard<std::mutex> lock(mutex_);
            times_.push_back(Clock::now());
        }
    }
    std::size_t Count() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return times_.size();
    }
    // Of those from the first-th on.
    std::size_t MostInASecond(std::size_t first) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::size_t most = 0;
        for (std::size_t i = first, end = first; i < times_.size(); ++i) {
            while (end < times_.size() && times_[end] - times_[i] < std::chrono::seconds(1)) {
                ++end;
            }
            most = std::max(most, end - i);
        }
        return most;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Clock::time_point> times_;
};

// The accounts of the shipped configuration, in /tmp, with passwords: the machine has enough to do
// without TLS.
void MakeAccounts(int hosts) {
    std::ofstream list("/tmp/hosts.list");
    for (int i = 0; i < hosts; ++i) {
        list << "host" << i << '\n';
    }
    list.close();
    const std::string packaging = FLEET_PACKAGING;
    Must(std::system(
             (packaging + "/users </tmp/hosts.list >/tmp/users.conf && sed -n '/^accounts/,$p' " +
              packaging +
              "/fleet.conf >/tmp/accounts.conf && "
              "sed -i 's/user: \"[^\"]*\"/&, password: x/' /tmp/users.conf /tmp/accounts.conf")
                 .c_str()) == 0,
         "no accounts");
}

class Hosts {
public:
    explicit Hosts(int count) {
        for (int i = 0; i < count; ++i) {
            const std::string home = "/tmp/hosts/" + std::to_string(i);
            fs::create_directories(home);
            Fleet::Settings settings;
            settings.name = "host" + std::to_string(i);
            settings.servers = NatsCluster::Servers(settings.name);
            members_.push_back(std::make_unique<Fleet::FleetMember>(
                settings, Fleet::FleetMember::Files{home + "/r", home + "/c", home + "/p"}));
        }
    }
    int Count() const { return static_cast<int>(members_.size()); }
    // So many more lines for each.
    void Write(int lines) {
        for (int host = 0; host < Count(); ++host) {
            Write(host, lines);
        }
    }
    void Write(int host, int lines) {
        std::string text;
        for (int i = 1; i <= lines; ++i) {
            text += R"({"time":"2026-11-22T20:15:03.120Z","host":"web01","task":"rsyslog_task",)"
                    R"("type":"rsyslog_1","content":{"cmd":"ls -l /home/ann/projects/some/where",)"
                    R"("time":1795384931,"user":"ann"},"id":"host)" +
                    std::to_string(host) + "-18eab1bd95a8a2e2bfcb0e67-" +
                    std::to_string(++written_) + "\"}\n";
        }
        std::ofstream("/tmp/hosts/" + std::to_string(host) + "/r", std::ios::app) << text;
    }
    int Written() const { return written_; }

private:
    std::vector<std::unique_ptr<Fleet::FleetMember>> members_;
    int written_ = 0;
};

void AwaitMessages(NatsCluster& cluster, int count) {
    const auto arrived = [&] {
        std::this_thread::sleep_for(
            std::chrono::milliseconds(100));  // asking is work for the servers
        return cluster.Messages() >= static_cast<std::uint64_t>(count);
    };
    Must(Await(arrived, kPatience), "reports do not arrive: " + std::to_string(cluster.Messages()) +
                                        " of " + std::to_string(count));
}

// From the put of a policy for all to the last host's word that it follows it.
double PolicyForAll(const NatsCluster& cluster, int hosts) {
    const Fleet::Nats::Connection connection = Fleet::Connect(cluster.Access());
    const Fleet::Nats::Subscription told =
        Fleet::Nats::Subscribe(connection.get(), Fleet::SubjectOfHosts());
    natsConnection_Flush(connection.get());
    const auto start = Clock::now();
    const std::string policy(2000, 'p');
    natsConnection_PublishString(connection.get(), Fleet::SubjectOfPolicy("all").c_str(),
                                 policy.c_str());
    std::set<std::string> followers;
    while (static_cast<int>(followers.size()) < hosts) {
        const Fleet::Nats::Msg message = Fleet::Nats::Next(told.get(), 60000);
        Must(message != nullptr, "hosts do not answer");
        if (Fleet::Nats::Data(message.get()).find(R"("source":"all")") != std::string::npos) {
            followers.insert(Fleet::Nats::LastToken(message.get()));
        }
    }
    return Since(start);
}

// How long others wait while one host has a day of reports to send.
void PrintFairness(NatsCluster& cluster, Hosts& hosts) {
    constexpr int kWaiting = 100'000;
    const Fleet::Nats::Connection connection = Fleet::Connect(cluster.Access());
    const Fleet::Nats::Subscription others = Fleet::Nats::Subscribe(
        connection.get(), std::string(Fleet::kReportSubjects) + "*.rsyslog_1");
    natsSubscription_SetPendingLimits(others.get(), -1, -1);
    natsConnection_Flush(connection.get());
    hosts.Write(0, kWaiting);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const auto start = Clock::now();
    for (int host = 1; host < hosts.Count(); ++host) {
        hosts.Write(host, 1);
    }
    std::cout << "one host with " << kWaiting << " reports waiting: ";
    for (int left = hosts.Count() - 1; left > 0;) {
        const Fleet::Nats::Msg message = Fleet::Nats::Next(others.get(), 60000);
        Must(message != nullptr, "reports do not arrive");
        left -= std::string(natsMsg_GetSubject(message.get())).find(".host0.") == std::string::npos;
    }
    std::cout << "a new one of each other host after " << Since(start) << " s, ";
    AwaitMessages(cluster, hosts.Written());
    std::cout << "all after " << 1 + Since(start) << " s" << std::endl;
}

// The client's own asynchronous publishing, with message ids.
double BareRate(NatsCluster& cluster, int connections) {
    const std::string name = "bare" + std::to_string(connections);
    const std::string all = name + ".>";
    Must(cluster.Eventually([&](natsConnection*) {
        const char* subjects[] = {all.c_str()};
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        config.Name = name.c_str();
        config.Subjects = subjects;
        config.SubjectsLen = 1;
        config.Replicas = NatsCluster::kServers;
        Fleet::Nats::Check(js_AddStream(nullptr, cluster.Stream(), &config, nullptr, nullptr), "");
    }),
         "no stream");
    std::vector<std::thread> publishers;
    publishers.reserve(static_cast<std::size_t>(connections));
    const auto start = Clock::now();
    for (int p = 0; p < connections; ++p) {
        publishers.emplace_back([&, p] {
            const Fleet::Nats::Connection connection = Fleet::Connect(cluster.Access());
            jsOptions options;
            jsOptions_Init(&options);
            options.PublishAsync.MaxPending = Fleet::ReportPublisher::kMaxLines;
            options.PublishAsync.StallWait = 60000;
            jsCtx* made = nullptr;
            Fleet::Nats::Check(natsConnection_JetStream(&made, connection.get(), &options), "");
            const Fleet::Nats::JetStream stream(made);
            const std::string data(240, 'd');
            for (int i = 0; i < kReports / connections; ++i) {
                natsMsg* message = nullptr;
                const std::string id =
                    std::to_string(p) + "-18eab1bd95a8a2e2bfcb0e67-" + std::to_string(i);
                natsMsg_Create(&message, (name + ".h" + std::to_string(p)).c_str(), nullptr,
                               data.c_str(), static_cast<int>(data.size()));
                jsPubOptions one;
                jsPubOptions_Init(&one);
                one.MsgId = id.c_str();
                Fleet::Nats::Check(js_PublishMsgAsync(made, &message, &one), "publishing");
            }
            jsPubOptions wait;
            jsPubOptions_Init(&wait);
            wait.MaxWait = 60000;
            Fleet::Nats::Check(js_PublishAsyncComplete(made, &wait), "acknowledgements");
        });
    }
    for (auto& publisher : publishers) {
        publisher.join();
    }
    const double rate = kReports / Since(start);
    cluster.Eventually([&](natsConnection*) {
        Fleet::Nats::Check(js_DeleteStream(cluster.Stream(), name.c_str(), nullptr, nullptr), "");
    });
    return rate;
}

void Run(int count) {
    Poco::AutoPtr<Connections> connections(new Connections);
    auto& engine = TestSupport::TestEngine();
    Framework::Log().setChannel(connections);
    Framework::Log().setLevel(Poco::Message::PRIO_INFORMATION);
    MakeAccounts(count);
    NatsCluster cluster("include \"../accounts.conf\"\n", "fleet-admin");
    Must(cluster.IsReady(), "no cluster");
    engine.LoadModules(BENCH_MODULES);
    std::cout << std::fixed << std::setprecision(1);

    auto start = Clock::now();
    Hosts hosts(count);
    const auto connected = [&](std::size_t wanted) {
        return Await([&] { return connections->Count() >= wanted; }, kPatience);
    };
    Must(connected(static_cast<std::size_t>(count)), "hosts are not connected");
    std::cout << count << " hosts connected in " << Since(start) << " s" << std::endl;
    start = Clock::now();
    hosts.Write(1);
    AwaitMessages(cluster, hosts.Written());
    std::cout << "first report of each in the stream after " << Since(start) << " s" << std::endl;

    constexpr int kIdle = 10;
    const double used = ProcessorTime();
    std::this_thread::sleep_for(std::chrono::seconds(kIdle));
    std::cout << "a host with nothing to do: " << std::setprecision(3)
              << 100 * (ProcessorTime() - used) / kIdle / count << " % of a core"
              << std::setprecision(1) << std::endl;

    const double policy = PolicyForAll(cluster, count);
    std::cout << "policy for all: the last host answered after " << policy << " s" << std::endl;

    double best = 0;
    double alike = 0;
    for (const int publishers : {1, 16, count}) {
        alike = BareRate(cluster, publishers);
        std::cout << "bare client, " << publishers << " connections: " << alike << " messages/s"
                  << std::endl;
        best = std::max(best, alike);
    }
    start = Clock::now();
    hosts.Write(kReports / count);
    AwaitMessages(cluster, hosts.Written());
    const double rate = kReports / Since(start);
    std::cout << "reports of " << count << " hosts: " << rate << " messages/s, ratio "
              << std::setprecision(2) << rate / alike << " to as many bare connections, "
              << rate / best << " to the best" << std::setprecision(1) << std::endl;

    PrintFairness(cluster, hosts);

    const std::size_t before = connections->Count();
    start = Clock::now();
    cluster.Kill(0);
    hosts.Write(1);
    AwaitMessages(cluster, hosts.Written());
    std::cout << "one server killed: a report of every host in the stream after " << Since(start)
              << " s; " << connections->Count() - before << " hosts connected anew, at most "
              << connections->MostInASecond(before) << " in a second" << std::endl;

    const auto ids = cluster.Ids();
    Must(ids.size() == static_cast<std::size_t>(hosts.Written()), "reports are lost");
    Must(cluster.Messages() == static_cast<std::uint64_t>(hosts.Written()),
         "reports are there twice");
    std::cout << ids.size() << " reports written, each once in the stream" << std::endl;
    // An end in order of so many threads is not what is measured.
    std::_Exit(EXIT_SUCCESS);
}

}  // namespace

int main(int argc, char** argv) {
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    try {
        Run(argc > 1 ? std::atoi(argv[1]) : 1000);
    } catch (const Poco::Exception& e) {
        Must(false, e.displayText());
    }
}
