#pragma once

#include <boost/icl/interval_set.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>

#include "module/module_fleet/src/Backoff.h"
#include "module/module_fleet/src/Nats.h"
#include "module/module_fleet/src/Spool.h"

namespace Fleet {

struct PublisherCounts {
    std::uint64_t published = 0;  // acknowledged, repeats included
    std::uint64_t left_out = 0;   // lines that are no reports with an id
    std::uint64_t shortened = 0;  // larger than the servers take
};

// Moves the lines of the report file into the stream of reports, each to watchpost.report.HOST.TYPE
// under its id, every id exactly once. Many are in flight at a time; what is acknowledged up to a
// line is kept in the checkpoint file.
//
// That nothing comes twice rests on three things. The servers drop a message whose id they have
// seen a moment ago. Before the first line of a type on a connection the stream is asked for its
// last message of the type: it is the one known here, and nothing that was in flight has arrived,
// or that very line, which has (as long as lines were stored in their order). Anything else, be it
// after a trouble, hours later or by an old checkpoint, and the stream is asked for the ids that it
// holds of this host above the checkpoint's sequence (the floor), below which no line in doubt can
// be. And whether such answers were whole, a server may lag behind, shows with the first message
// itself: it goes alone and says which one it follows.
//
// Asking for ids is work for the servers, thousands of hosts at a time after one of them has died,
// and is left to those that had several lines in flight. Nor are servers tried with messages that
// they may have to refuse: after such a one, a restart of all servers has been seen to store the
// last message of the stream twice (2.9.10).
//
// One thread at a time.
class ReportPublisher {
public:
    // What may be in flight, and so in memory, at most; one line may be larger than that.
    static constexpr std::size_t kMaxLines = 4096;
    static constexpr std::size_t kMaxBytes = 4 << 20;

    ReportPublisher(const std::string& host, const std::string& report_file,
                    const std::string& checkpoint_file);

    // From here on through this connection, which must outlive the use of it; null: none.
    void Connect(natsConnection* connection);
    // Publishes and takes acknowledgements for `time` at most, or a wait for one longer; returns
    // early when nothing is to be done. What the stream does not take is tried again by itself, and
    // Trouble() tells of it. Throws Poco::IOException when the connection is of no use.
    void Work(std::chrono::milliseconds time);
    // Writes the checkpoint when it has changed. Throws Poco::IOException.
    void WriteCheckpoint();

    const PublisherCounts& Counts() const { return counts_; }
    // Why Work is false.
    const std::string& Trouble() const { return trouble_; }

private:
    using Clock = std::chrono::steady_clock;
    struct Flight {
        Spool::Line line;  // without its text
        std::size_t size = 0;
        std::uint64_t floor = 0;
        std::string type;
        Clock::time_point sent;
        bool done = false;
    };

    void ReadCheckpoint();
    void Publish(Clock::time_point end);
    // Waits a little for acknowledgements; the first one is taken.
    void AwaitAcks();
    // Whether no further line may be sent for now.
    bool IsFull() const;
    void Send(Spool::Line& line);
    // What the servers take: the line, or a report that tells how long it was.
    std::string Fitting(Json::Value& report, const std::string& text);
    struct Stored {
        std::uint64_t sequence = 0;  // 0: none
        std::string id;
    };
    // The last message that the stream has of this host and type. The replica that answers may lag
    // behind.
    Stored LastStored(const std::string& type);
    // Asks the stream what it holds of this host.
    void LearnStored();
    // Takes one acknowledgement, waiting for it; false when there was none.
    bool TakeAck(std::int64_t milliseconds);
    void Acknowledge(Flight& flight, std::uint64_t sequence, bool repeat);
    // The stream holds what is not known here: it is to be asked, after that for more.
    void Doubt();
    void Land();
    // Finds out, by how long the stream takes, how much in flight it bears. All hosts do, and so
    // share it: after an outage each of them has more to send than it can take at once.
    void AdaptWindow(const Flight& flight, std::uint64_t number);
    // Takes back what is in flight, to be sent again.
    void Rewind();

    const std::string subject_;  // up to the type
    const std::string inbox_prefix_;
    const std::string consumer_;
    const std::string checkpoint_file_;
    Spool spool_;

    natsConnection* connection_ = nullptr;
    Nats::JetStream stream_;
    Nats::Subscription acks_;
    std::string inbox_;
    std::string trouble_;
    Backoff publishing_{std::chrono::seconds(8)};
    Backoff asking_;
    Clock::time_point next_try_;

    std::deque<Flight> flights_;
    std::uint64_t first_flight_ = 0;  // number of the first one
    std::size_t bytes_ = 0;
    std::size_t window_ = 1;          // lines that may be in flight now
    std::uint64_t window_since_ = 0;  // what was sent before tells nothing of it
    Clock::time_point last_ack_;      // or the sending of the first in flight

    enum class Question { kNone, kAboveFloor, kAll };
    Question question_ = Question::kNone;  // for the stream, before anything more is sent
    Question asked_ = Question::kNone;     // since a type was last opened
    bool settled_ = false;                 // no line in doubt lies ahead
    bool in_order_ = false;      // what was in flight since then is not stored in another order
    std::uint64_t floor_ = 0;    // what is stored of lines not done with has a higher sequence
    std::uint64_t highest_ = 0;  // sequence seen
    std::map<std::string, std::uint64_t> last_;  // sequence by type
    std::set<std::string> open_;  // types whose last sequence the stream has confirmed
    std::string opening_;         // the one being confirmed
    std::map<std::string, boost::icl::interval_set<std::uint64_t>> stored_;  // numbers, by start

    bool moved_ = false;  // since the checkpoint was written
    PublisherCounts counts_;
};

}  // namespace Fleet
