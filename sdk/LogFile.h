#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Formatter.h>

#include <mutex>
#include <string>

#include "sdk/LineFile.h"

namespace SDK {

// The end of all loggers: a file of one line a message, "\n" behind each, that rotates itself. From
// any thread.
//
// Whatever happens to the file, log() neither throws nor waits. A line is in the file whole or not
// at all; how many could not be written, and why, is a line of its own in front of the first one
// that can be again. A file that was moved or removed is created anew at the next message.
//
// Before the line that would take the file past 10 MiB, it becomes PATH.0, that one PATH.1, and so
// on up to PATH.4. The line is on disk by then: no old line is given up for one that finds no room.
class LogFile : public Poco::Channel {
public:
    LogFile(std::string path, Poco::AutoPtr<Poco::Formatter> formatter);

    // Opens the file, a regular one, or creates it (0640 less the umask). 0 or an errno value.
    int OpenFile() { return file_.Open(); }

    void log(const Poco::Message& message) override;

protected:
    ~LogFile() override = default;

private:
    int Append(const std::string& text);
    int Rotate(const std::string& text);
    std::string Notice();

    Poco::AutoPtr<Poco::Formatter> formatter_;
    std::mutex mutex_;  // guards the rest
    LineFile file_;
    unsigned long missed_ = 0;
    int why_missed_ = 0;
};

}  // namespace SDK
