#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "module/module_fleet/src/Cluster.h"
#include "module/module_fleet/src/FleetNames.h"
#include "test/support/TestSupport.h"

namespace TestSupport {

// Three servers on loopback, with the fleet's stream and buckets in three replicas.
class NatsCluster {
public:
    static constexpr int kServers = 3;

    // For `user` with the password "x" when there are accounts, lines for the servers'
    // configuration.
    explicit NatsCluster(std::string accounts = "", const std::string& user = "")
        : accounts_(std::move(accounts)) {
        for (int i = 0; i < kServers; ++i) {
            Start(i);
        }
        settings_.name = user.empty() ? "test" : user;
        settings_.servers = Servers(user);
        ready_ = Eventually([](natsConnection* connection) { Fleet::InitFleet(connection, 3); });
    }
    ~NatsCluster() {
        for (int i = 0; i < kServers; ++i) {
            Kill(i);
        }
        std::filesystem::remove_all("/tmp/nats");
    }

    bool IsReady() const { return ready_; }
    const Fleet::Settings& Access() const { return settings_; }
    static std::vector<std::string> Servers(const std::string& user = "") {
        const std::string at = "nats://" + (user.empty() ? "" : user + ":x@") + "127.0.0.1:422";
        return {at + "1", at + "2", at + "3"};
    }
    std::string Urls() const {
        return settings_.servers[0] + "," + settings_.servers[1] + "," + settings_.servers[2];
    }

    void Start(int i) {
        const std::string number = std::to_string(1 + i);
        const std::string home = "/tmp/nats/s" + number;
        std::filesystem::create_directories(home);
        WriteText(home + ".conf", "server_name: s" + number + "\nlisten: \"127.0.0.1:422" + number +
                                      "\"\njetstream { store_dir: \"" + home +
                                      "\", max_mem: 64M, max_file: 1G }\n"
                                      "cluster { name: c, listen: \"127.0.0.1:622" +
                                      number +
                                      "\", routes: [\"nats://127.0.0.1:6221\", "
                                      "\"nats://127.0.0.1:6222\", \"nats://127.0.0.1:6223\"] }\n" +
                                      accounts_);
        pids_[i] = fork();
        if (pids_[i] == 0) {
            execlp("nats-server", "nats-server", "-c", (home + ".conf").c_str(), "-l",
                   (home + ".log").c_str(), nullptr);
            _exit(127);
        }
    }
    void Kill(int i) {
        if (pids_[i] > 0) {
            kill(pids_[i], SIGKILL);
            waitpid(pids_[i], nullptr, 0);
            pids_[i] = 0;
        }
    }

    // Calls `step` with a connection, and its JetStream in Stream(), until it throws nothing.
    template <typename Step>
    bool Eventually(Step step) {
        return Await([&] {
            try {
                if (connection_ == nullptr || natsConnection_IsClosed(connection_.get())) {
                    stream_.reset();
                    connection_ = Fleet::Connect(settings_);
                    jsCtx* made = nullptr;
                    Fleet::Nats::Check(natsConnection_JetStream(&made, connection_.get(), nullptr),
                                       "");
                    stream_.reset(made);
                }
                step(connection_.get());
                return true;
            } catch (const Poco::Exception&) {
                return false;
            }
        });
    }
    jsCtx* Stream() { return stream_.get(); }

    // The server that leads the stream of reports; -1 when there is none now.
    int Leader() {
        int leader = -1;
        Eventually([&](natsConnection*) {
            jsStreamInfo* info = nullptr;
            Fleet::Nats::Check(
                js_GetStreamInfo(&info, Stream(), Fleet::kReportStream, nullptr, nullptr), "");
            if (info->Cluster != nullptr && info->Cluster->Leader != nullptr &&
                info->Cluster->Leader[0] == 's') {
                leader = info->Cluster->Leader[1] - '1';
            }
            jsStreamInfo_Destroy(info);
        });
        return leader;
    }
    std::uint64_t Messages() {
        std::uint64_t messages = 0;
        Eventually([&](natsConnection*) {
            jsStreamInfo* info = nullptr;
            Fleet::Nats::Check(
                js_GetStreamInfo(&info, Stream(), Fleet::kReportStream, nullptr, nullptr), "");
            messages = info->State.Msgs;
            jsStreamInfo_Destroy(info);
        });
        return messages;
    }
    // How often each id is in the stream.
    std::map<std::string, int> Ids() {
        std::map<std::string, int> ids;
        Eventually([&](natsConnection*) {
            ids.clear();
            jsSubOptions options;
            jsSubOptions_Init(&options);
            options.Ordered = true;
            options.Config.HeadersOnly = true;
            natsSubscription* made = nullptr;
            Fleet::Nats::Check(
                js_SubscribeSync(&made, Stream(), "watchpost.report.>", nullptr, &options, nullptr),
                "");
            const Fleet::Nats::Subscription all(made);
            for (std::uint64_t left = Messages(); left > 0; --left) {
                const Fleet::Nats::Msg message = Fleet::Nats::Next(made, 5000);
                if (message == nullptr) {
                    throw Poco::IOException("");
                }
                ++ids[Fleet::Nats::Header(message.get(), "Nats-Msg-Id")];
            }
        });
        return ids;
    }

private:
    const std::string accounts_;
    Fleet::Settings settings_;
    std::array<pid_t, kServers> pids_{};
    Fleet::Nats::Connection connection_;
    Fleet::Nats::JetStream stream_;
    bool ready_ = false;
};

}  // namespace TestSupport
