#pragma once

#include <nats/nats.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// What the module uses of the cluster's client, owned and with exceptions: what fails throws
// Poco::IOException with the client's words, its natsStatus as code.
namespace Fleet::Nats {

template <auto destroy>
struct Destroy {
    template <typename Object>
    void operator()(Object* object) const {
        destroy(object);
    }
};
template <typename Object, auto destroy>
using Owned = std::unique_ptr<Object, Destroy<destroy>>;

using Options = Owned<natsOptions, natsOptions_Destroy>;
using Connection = Owned<natsConnection, natsConnection_Destroy>;
using Subscription = Owned<natsSubscription, natsSubscription_Destroy>;
using Msg = Owned<natsMsg, natsMsg_Destroy>;
using JetStream = Owned<jsCtx, jsCtx_Destroy>;

// Throws unless it went well.
void Check(natsStatus status, const std::string& what);

Subscription Subscribe(natsConnection* connection, const std::string& subject);
// The next message; none when nothing comes for so long. 0 does not wait.
Msg Next(natsSubscription* subscription, std::int64_t milliseconds);

// Reads a stream with a consumer of its own, as fast as the caller takes the messages and no
// faster.
class StreamReader {
public:
    // `config`: filter, place to start from and what else is wanted; a consumer of its name, if it
    // has one, is replaced. The context and the stream's name outlive the reader.
    StreamReader(jsCtx* context, const char* stream, jsConsumerConfig config);
    // The consumer goes too.
    ~StreamReader();
    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    // How many messages there were for it at its start.
    std::uint64_t Pending() const { return pending_; }
    // Calls `take` with each message of the next few; returns how many these were, 0 when none came
    // for so long.
    std::uint64_t Read(std::int64_t milliseconds, const std::function<void(natsMsg*)>& take);

private:
    jsCtx* const context_;
    const char* const stream_;
    std::string name_;
    std::uint64_t pending_ = 0;
    Subscription messages_;
};

// Of a message that was read so.
struct Place {
    std::uint64_t sequence;
    std::int64_t time;  // nanoseconds since the epoch, by the servers' clock
};
Place PlaceOf(natsMsg* message);
std::string LastToken(const natsMsg* message);  // of its subject

std::string Data(const natsMsg* message);
// Empty when there is no such header.
std::string Header(natsMsg* message, const char* name);

}  // namespace Fleet::Nats
