#include "module/module_fleet/src/ReportPublisher.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <utility>

#include "framework/Log.h"
#include "module/module_fleet/src/FleetNames.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Fleet {

namespace {

using SDK::JsonUtils::JsonToString;
using std::chrono::milliseconds;

constexpr std::size_t kMaxCheckpoint = 1 << 20;
constexpr auto kAckTimeout = std::chrono::seconds(10);
constexpr std::int64_t kAckWaitMs = 100;
constexpr auto kGather = milliseconds(5);
constexpr auto kShortWait = milliseconds(250);  // for an acknowledgement: the stream bears more
constexpr auto kLongWait = milliseconds(1000);  // it bears less
constexpr std::int64_t kReadMs = 3000;
constexpr std::size_t kRoomForHeaders = 4096;
constexpr std::size_t kMaxBegin = 32 << 10;
constexpr char kMessageId[] = "Nats-Msg-Id";
constexpr char kExpectedLast[] = "Nats-Expected-Last-Subject-Sequence";
constexpr int kWrongLastSequence = 10071;  // the servers' code

// HOST-START-NUMBER.
struct Id {
    std::string start;
    std::uint64_t number = 0;
};

bool ParseId(const std::string& text, Id& id) {
    const std::size_t dash = text.rfind('-');
    const std::string digits = dash == std::string::npos ? "" : text.substr(dash + 1);
    if (digits.empty() || digits.size() > 19 ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    id = {text.substr(0, dash), std::stoull(digits)};
    return true;
}

}  // namespace

ReportPublisher::ReportPublisher(const std::string& host, const std::string& report_file,
                                 const std::string& checkpoint_file)
    : subject_(kReportSubjects + Escape(host) + "."),
      inbox_prefix_(kInboxes + Escape(host)),
      consumer_("report-" + Escape(host)),
      checkpoint_file_(checkpoint_file),
      spool_(report_file) {
    ReadCheckpoint();
}

void ReportPublisher::ReadCheckpoint() {
    std::string text;
    const int error = SDK::FileUtils::ReadFile(checkpoint_file_, text, kMaxCheckpoint);
    if (error == ENOENT) {
        return;
    }
    Json::Value checkpoint;
    bool good =
        error == 0 && SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), checkpoint) == 0 &&
        checkpoint.isObject() && checkpoint["floor"].isUInt64() && checkpoint["files"].isArray() &&
        checkpoint["last"].isObject() && checkpoint["in_flight"].isBool();
    for (const Json::Value& sequence : good ? checkpoint["last"] : Json::Value()) {
        good = good && sequence.isUInt64();
    }
    if (!good) {
        Framework::Log().warning("checkpoint " + checkpoint_file_ +
                                 " cannot be read: the cluster is asked which reports it has");
        return;
    }
    floor_ = highest_ = checkpoint["floor"].asUInt64();
    for (const std::string& type : checkpoint["last"].getMemberNames()) {
        last_[type] = checkpoint["last"][type].asUInt64();
    }
    settled_ = !checkpoint["in_flight"].asBool();
    if (!settled_) {
        question_ = Question::kAboveFloor;
    }
    spool_.Resume(checkpoint["files"]);
}

void ReportPublisher::WriteCheckpoint() {
    if (!moved_) {
        return;
    }
    Json::Value checkpoint;
    checkpoint["floor"] = Json::UInt64(floor_);
    checkpoint["last"] = Json::Value(Json::objectValue);
    for (const auto& [type, sequence] : last_) {
        checkpoint["last"][type] = Json::UInt64(sequence);
    }
    checkpoint["in_flight"] = !settled_ || !flights_.empty();
    checkpoint["files"] = spool_.Positions();
    const std::string text = JsonToString(checkpoint) + "\n";
    if (const int error = SDK::FileUtils::WriteFile(checkpoint_file_, text, false); error != 0) {
        throw Poco::IOException("checkpoint " + checkpoint_file_, std::strerror(error));
    }
    moved_ = false;
}

void ReportPublisher::Connect(natsConnection* connection) {
    Rewind();
    acks_.reset();
    stream_.reset();
    connection_ = connection;
    if (connection == nullptr) {
        return;
    }
    jsCtx* stream = nullptr;
    Nats::Check(natsConnection_JetStream(&stream, connection, nullptr), "JetStream");
    stream_.reset(stream);
    natsInbox* inbox = nullptr;
    Nats::Check(natsInbox_Create(&inbox), "inbox");
    const std::string unique = inbox;
    natsInbox_Destroy(inbox);
    inbox_ = inbox_prefix_ + unique.substr(unique.find('.')) + ".";
    acks_ = Nats::Subscribe(connection, inbox_ + "*");
}

void ReportPublisher::Work(milliseconds time) {
    const auto now = Clock::now();
    if (connection_ == nullptr || now < next_try_) {
        return;
    }
    try {
        Publish(now + time);
    } catch (const Poco::IOException& e) {
        Rewind();
        if (natsConnection_IsClosed(connection_)) {
            throw;
        }
        trouble_ = e.displayText();
        next_try_ =
            Clock::now() + (question_ == Question::kNone ? publishing_.Next() : asking_.Next());
    }
}

void ReportPublisher::Rewind() {
    asked_ = Question::kNone;
    settled_ = settled_ && flights_.empty();
    first_flight_ += flights_.size();  // what is still acknowledged of them finds nobody
    flights_.clear();
    bytes_ = 0;
    window_ = 1;
    open_.clear();
    opening_.clear();
    spool_.Rewind();
}

void ReportPublisher::Publish(Clock::time_point end) {
    while (Clock::now() < end) {
        while (TakeAck(0)) {
        }
        if (IsFull()) {
            AwaitAcks();
            continue;
        }
        Spool::Line line;
        if (spool_.Next(line)) {
            if (question_ != Question::kNone) {
                LearnStored();
            }
            Send(line);
        } else if (!flights_.empty()) {
            AwaitAcks();
        } else {
            settled_ = true;
            in_order_ = true;
            stored_.clear();
            floor_ = highest_;
            trouble_.clear();
            return;
        }
    }
}

void ReportPublisher::AwaitAcks() {
    if (TakeAck(kAckWaitMs)) {
        std::this_thread::sleep_for(kGather);  // waking up for each would cost more than they do
    }
}

bool ReportPublisher::IsFull() const {
    return flights_.size() >= window_ || bytes_ >= kMaxBytes || !opening_.empty();
}

void ReportPublisher::Send(Spool::Line& line) {
    const std::string text = std::move(line.text);
    if (flights_.empty()) {
        last_ack_ = Clock::now();
    }
    flights_.push_back(
        {{{}, line.file, line.end}, 0, settled_ ? highest_ : floor_, {}, Clock::now(), false});
    Flight& flight = flights_.back();

    Json::Value report;
    Id id;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), report) != 0 ||
        !ParseId(SDK::JsonUtils::GetStringValue(report, "id", ""), id)) {
        ++counts_.left_out;
        flight.done = true;
        Land();
        return;
    }
    const auto stored = stored_.find(id.start);
    if (stored != stored_.end() && boost::icl::contains(stored->second, id.number)) {
        ++counts_.published;
        flight.done = true;
        Land();
        return;
    }
    const std::string type = SDK::JsonUtils::GetStringValue(report, "type", "");
    flight.type = type.empty() ? "_" : Escape(type);
    if (open_.count(flight.type) == 0 && asked_ == Question::kNone) {
        const Stored last = LastStored(flight.type);
        if (last.sequence != last_[flight.type]) {
            if (in_order_ && last.id == report["id"].asString()) {
                Acknowledge(flight, last.sequence, true);
                Land();
            } else {
                Doubt();
            }
            return;
        }
    }
    flight.size = text.size();
    bytes_ += flight.size;

    const std::string number = std::to_string(first_flight_ + flights_.size() - 1);
    const std::string data = Fitting(report, text);
    natsMsg* made = nullptr;
    Nats::Check(natsMsg_Create(&made, (subject_ + flight.type).c_str(), (inbox_ + number).c_str(),
                               data.data(), static_cast<int>(data.size())),
                "message");
    const Nats::Msg message(made);
    Nats::Check(natsMsgHeader_Set(made, kMessageId, report["id"].asCString()), "message");
    if (open_.count(flight.type) == 0) {
        opening_ = flight.type;
        Nats::Check(
            natsMsgHeader_Set(made, kExpectedLast, std::to_string(last_[flight.type]).c_str()),
            "message");
    }
    Nats::Check(natsConnection_PublishMsg(connection_, made), "publishing");
}

std::string ReportPublisher::Fitting(Json::Value& report, const std::string& text) {
    const auto most = static_cast<std::size_t>(natsConnection_GetMaxPayload(connection_));
    if (text.size() + kRoomForHeaders <= most) {
        return text;
    }
    ++counts_.shortened;
    const std::string content = JsonToString(report["content"]);
    report["content"] = Json::Value(Json::objectValue);
    report["content"]["begin"] = content.substr(0, std::min(kMaxBegin, most / 8));
    report["content"]["length"] = Json::UInt64(content.size());
    return JsonToString(report);
}

bool ReportPublisher::TakeAck(std::int64_t milliseconds) {
    const Nats::Msg ack = Nats::Next(acks_.get(), milliseconds);
    if (ack == nullptr) {
        if (!flights_.empty() && Clock::now() - last_ack_ > kAckTimeout) {
            throw Poco::IOException("the stream does not acknowledge");
        }
        return false;
    }
    const std::uint64_t number = std::stoull(Nats::LastToken(ack.get()));
    if (number < first_flight_ || number - first_flight_ >= flights_.size()) {
        return true;
    }
    const std::string text = Nats::Data(ack.get());
    Json::Value value;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value) != 0 || !value.isObject() ||
        !value["seq"].isUInt64() || value.isMember("error")) {
        if (SDK::JsonUtils::GetIntValue(value["error"], "err_code", 0) == kWrongLastSequence &&
            asked_ != Question::kAll) {
            Doubt();
            return true;
        }
        throw Poco::IOException("the stream refuses a report", text);
    }
    last_ack_ = Clock::now();
    Flight& flight = flights_[number - first_flight_];
    const bool repeat = SDK::JsonUtils::GetBoolValue(value, "duplicate", false);
    if (repeat && flight.type == opening_ && asked_ == Question::kNone) {
        Doubt();
        return true;
    }
    AdaptWindow(flight, number);
    Acknowledge(flight, value["seq"].asUInt64(), repeat);
    Land();
    return true;
}

void ReportPublisher::AdaptWindow(const Flight& flight, std::uint64_t number) {
    const auto wait = last_ack_ - flight.sent;
    if (wait < kShortWait) {
        window_ = std::min(window_ + 1, kMaxLines);
    } else if (wait > kLongWait && number >= window_since_) {
        window_ = std::max<std::size_t>(window_ / 2, 1);
        window_since_ = first_flight_ + flights_.size();
    }
}

void ReportPublisher::Doubt() {
    question_ = asked_ == Question::kNone ? Question::kAboveFloor : Question::kAll;
    in_order_ = false;
    Rewind();
}

void ReportPublisher::Acknowledge(Flight& flight, std::uint64_t sequence, bool repeat) {
    flight.done = true;
    bytes_ -= flight.size;
    ++counts_.published;
    highest_ = std::max(highest_, sequence);
    std::uint64_t& last = last_[flight.type];
    last = std::max(last, sequence);
    if (flight.type == opening_) {
        opening_.clear();
        if (!repeat) {  // of a repeat the stream has not looked what comes before it
            open_.insert(flight.type);
            asked_ = Question::kNone;
        }
    }
}

void ReportPublisher::Land() {
    while (!flights_.empty() && flights_.front().done) {
        Spool::Finish(flights_.front().line);
        flights_.pop_front();
        ++first_flight_;
        moved_ = true;
        publishing_.Reset();
        asking_.Reset();
        trouble_.clear();
    }
    if (!flights_.empty()) {
        floor_ = flights_.front().floor;
    } else if (settled_) {
        floor_ = highest_;
    }
}

ReportPublisher::Stored ReportPublisher::LastStored(const std::string& type) {
    const std::string subject = subject_ + type;
    jsDirectGetMsgOptions last;
    jsDirectGetMsgOptions_Init(&last);
    last.LastBySubject = subject.c_str();
    natsMsg* found = nullptr;
    const natsStatus status = js_DirectGetMsg(&found, stream_.get(), kReportStream, nullptr, &last);
    if (status == NATS_NOT_FOUND) {
        return {};
    }
    Nats::Check(status, std::string("stream ") + kReportStream);
    const Nats::Msg message(found);
    return {natsMsg_GetSequence(found), Nats::Header(found, kMessageId)};
}

void ReportPublisher::LearnStored() {
    const std::uint64_t floor = question_ == Question::kAll ? 0 : floor_;
    stored_.clear();
    if (floor == 0) {
        last_.clear();
    }
    const std::string filter = subject_ + ">";
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Name = consumer_.c_str();
    config.FilterSubject = filter.c_str();
    config.DeliverPolicy = js_DeliverByStartSequence;
    config.OptStartSeq = floor + 1;
    config.HeadersOnly = true;
    Nats::StreamReader reader(stream_.get(), kReportStream, config);
    for (std::uint64_t read = 0; read < reader.Pending();) {
        const std::uint64_t more = reader.Read(kReadMs, [this](natsMsg* message) {
            Id id;
            if (ParseId(Nats::Header(message, kMessageId), id)) {
                stored_[id.start].add(id.number);
            }
            const std::uint64_t sequence = Nats::PlaceOf(message).sequence;
            highest_ = std::max(highest_, sequence);
            std::uint64_t& last = last_[Nats::LastToken(message)];
            last = std::max(last, sequence);
        });
        if (more == 0) {
            throw Poco::IOException("the stream does not tell all that it holds");
        }
        read += more;
    }
    asked_ = std::exchange(question_, Question::kNone);
}

}  // namespace Fleet
