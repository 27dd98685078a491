#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "framework/Task.h"
#include "sdk/LineFile.h"

// What has become of the reports so far.
struct ReportCounts {
    std::map<std::string, std::uint64_t>
        by_type;  // those written; "other" for types past a hundred
    std::uint64_t lines = 0;
    std::uint64_t bytes = 0;
    std::uint64_t failures = 0;  // writes that failed, each try
    bool failing = false;        // the last one did
};

// The task that reports are sent to, "data_comm_report_task": appends each DataMessage to the
// report file as one line of JSON,
//   {"time":T,"host":H,"task":SENDER,"type":TYPE,"content":C,"id":"HOST-START-NUMBER"}
// T is UTC, ISO 8601 with milliseconds; C an object where the message's text is a JSON object,
// otherwise that text as a string. No two lines anywhere have the same id: START names this object,
// NUMBER counts its lines from 1. Lines are pure ASCII. A file that was moved or removed is
// created anew before the next line. A line that cannot be written whole, the disk being full or
// the file's directory gone or memory short for instance, is tried again each second, senders
// waiting meanwhile; only a stop gives up, with an error line that counts what is lost.
class ReportTask : public Framework::Task {
public:
    static constexpr const char* kName = "data_comm_report_task";

    explicit ReportTask(const std::string& path);

    // Opens the report file, as LineFile does. 0 or an errno value. Before the start.
    int Open() { return file_.Open(); }
    const std::string& Path() const { return file_.Path(); }

    // Any thread.
    ReportCounts Counts() const;

    void UnInit() override;
    void HandleMsg(const Framework::Message* message) override;

protected:
    ~ReportTask() override = default;

private:
    // Formats the report and writes it. 0 or an errno value.
    int Write(const Framework::DataMessage& report);
    void CountFailure();
    void CountLine(const std::string& type, std::size_t size);
    // Whether a stop need not try to write so many bytes, as the disk lacks the room for them.
    bool IsHopeless(std::size_t size) const;

    SDK::LineFile file_;
    const std::string start_;
    std::uint64_t number_ = 0;  // of the line formatted last
    std::string line_;          // the one being written, formatted
    bool no_room_ = false;      // the last failure was for lack of room
    unsigned long lost_ = 0;
    mutable std::mutex counts_mutex_;
    ReportCounts counts_;  // altered by this task's thread alone, which reads it without the mutex
};

// The line of one report, without its newline. `id`: START-NUMBER.
std::string FormatReport(const Framework::DataMessage& message, const std::string& host,
                         const std::string& id);
