#include "module/module_fleet/src/Nats.h"

#include <Poco/Exception.h>

namespace Fleet::Nats {

namespace {

constexpr int kBatch = 1000;
constexpr std::int64_t kReplicas = 3;
constexpr std::int64_t kConsumerLife = 60'000'000'000;  // nanoseconds without use

}  // namespace

void Check(natsStatus status, const std::string& what) {
    if (status != NATS_OK) {
        natsStatus last = NATS_OK;
        const char* words = nats_GetLastError(&last);
        std::string why =
            last == status && words != nullptr && *words != 0 ? words : natsStatus_GetText(status);
        const std::size_t place = why.find("): ");
        if (why[0] == '(' && place != std::string::npos) {  // in its source
            why.erase(0, place + 3);
        }
        throw Poco::IOException(what, why, status);
    }
}

Subscription Subscribe(natsConnection* connection, const std::string& subject) {
    natsSubscription* made = nullptr;
    Check(natsConnection_SubscribeSync(&made, connection, subject.c_str()),
          "subscription to " + subject);
    return Subscription(made);
}

Msg Next(natsSubscription* subscription, std::int64_t milliseconds) {
    natsMsg* message = nullptr;
    const natsStatus status = natsSubscription_NextMsg(&message, subscription, milliseconds);
    if (status != NATS_TIMEOUT) {
        Check(status, "answer");
    }
    return Msg(message);
}

StreamReader::StreamReader(jsCtx* context, const char* stream, jsConsumerConfig config)
    : context_(context), stream_(stream) {
    config.AckPolicy = js_AckNone;
    config.InactiveThreshold = kConsumerLife;
    config.MemoryStorage = true;
    if (config.Name != nullptr) {
        js_DeleteConsumer(context, stream, config.Name, nullptr, nullptr);
    }
    const std::string what = std::string("reading stream ") + stream;
    // One with a single replica may be put on a server that has just died. A stream may have fewer.
    jsConsumerInfo* made = nullptr;
    config.Replicas = kReplicas;
    natsStatus status = js_AddConsumer(&made, context, stream, &config, nullptr, nullptr);
    if (status != NATS_OK && status != NATS_TIMEOUT) {
        config.Replicas = 1;
        status = js_AddConsumer(&made, context, stream, &config, nullptr, nullptr);
    }
    Check(status, what);
    name_ = made->Name;
    pending_ = made->NumPending;
    jsConsumerInfo_Destroy(made);

    jsSubOptions bound;
    jsSubOptions_Init(&bound);
    bound.Stream = stream;
    bound.Consumer = name_.c_str();
    bound.Config = config;
    natsSubscription* messages = nullptr;
    Check(js_PullSubscribe(&messages, context, config.FilterSubject, nullptr, nullptr, &bound,
                           nullptr),
          what);
    messages_.reset(messages);
}

StreamReader::~StreamReader() {
    js_DeleteConsumer(context_, stream_, name_.c_str(), nullptr, nullptr);
}

std::uint64_t StreamReader::Read(std::int64_t milliseconds,
                                 const std::function<void(natsMsg*)>& take) {
    natsMsgList list = {};
    const natsStatus status =
        natsSubscription_Fetch(&list, messages_.get(), kBatch, milliseconds, nullptr);
    if (status == NATS_TIMEOUT) {
        return 0;
    }
    Check(status, std::string("reading stream ") + stream_);
    const Owned<natsMsgList, natsMsgList_Destroy> messages(&list);  // what is in it
    for (int i = 0; i < list.Count; ++i) {
        take(list.Msgs[i]);
    }
    return static_cast<std::uint64_t>(list.Count);
}

Place PlaceOf(natsMsg* message) {
    jsMsgMetaData* data = nullptr;
    Check(natsMsg_GetMetaData(&data, message), "message of a stream");
    const Place place{data->Sequence.Stream, data->Timestamp};
    jsMsgMetaData_Destroy(data);
    return place;
}

std::string LastToken(const natsMsg* message) {
    const std::string subject = natsMsg_GetSubject(message);
    return subject.substr(subject.rfind('.') + 1);
}

std::string Data(const natsMsg* message) {
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

std::string Header(natsMsg* message, const char* name) {
    const char* value = nullptr;
    return natsMsgHeader_Get(message, name, &value) == NATS_OK && value != nullptr ? value : "";
}

}  // namespace Fleet::Nats
