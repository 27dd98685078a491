#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "framework/Task.h"

// The task that reports are sent to, "data_comm_report_task": appends each DataMessage to the
// report file as one line of JSON,
//   {"time":T,"host":H,"task":SENDER,"type":TYPE,"content":C}
// T is UTC, ISO 8601 with milliseconds; C an object where the message's text is a JSON object,
// otherwise that text as a string. Lines are pure ASCII. A file that was moved or removed is
// created anew before the next line. A line that cannot be written whole, the disk being full or
// the file's directory gone for instance, is taken back and tried again each second, senders
// waiting meanwhile; only a stop gives up, with an error line that counts what is lost.
class ReportTask : public Framework::Task {
public:
    static constexpr const char* kName = "data_comm_report_task";

    explicit ReportTask(const std::string& path);

    // Opens the report file, a regular one, creating it with mode 0640; false, with errno set, when
    // that fails. Before the start.
    bool Open();
    // Opens the file anew before the next line. Any thread.
    void Reopen() { reopen_ = true; }
    const std::string& Path() const { return path_; }

    void UnInit() override;
    void HandleMsg(const Framework::Message* message) override;

protected:
    ~ReportTask() override;

private:
    bool Append(const std::string& line);
    // Whether the path still leads to the open file.
    bool IsInPlace() const;
    // Whether a stop need not try to write so many bytes, as the disk lacks the room for them.
    bool IsHopeless(std::size_t size) const;

    const std::string path_;
    int file_ = -1;
    std::atomic<bool> reopen_{false};
    bool failing_ = false;
    bool no_room_ = false;  // the last failure was for lack of room
    bool torn_ = false;     // the file ends in a piece of a line that could not be taken back
    unsigned long lost_ = 0;
};

// The line of one report, without its newline.
std::string FormatReport(const Framework::DataMessage& message, const std::string& host);
