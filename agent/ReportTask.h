#pragma once

#include <cstddef>
#include <string>

#include "framework/Task.h"
#include "sdk/LineFile.h"

// The task that reports are sent to, "data_comm_report_task": appends each DataMessage to the
// report file as one line of JSON,
//   {"time":T,"host":H,"task":SENDER,"type":TYPE,"content":C}
// T is UTC, ISO 8601 with milliseconds; C an object where the message's text is a JSON object,
// otherwise that text as a string. Lines are pure ASCII. A file that was moved or removed is
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

    void UnInit() override;
    void HandleMsg(const Framework::Message* message) override;

protected:
    ~ReportTask() override = default;

private:
    // Formats the report and writes it. 0 or an errno value.
    int Write(const Framework::DataMessage& report);
    // Whether a stop need not try to write so many bytes, as the disk lacks the room for them.
    bool IsHopeless(std::size_t size) const;

    SDK::LineFile file_;
    std::string line_;  // the one being written, formatted
    bool failing_ = false;
    bool no_room_ = false;  // the last failure was for lack of room
    unsigned long lost_ = 0;
};

// The line of one report, without its newline.
std::string FormatReport(const Framework::DataMessage& message, const std::string& host);
