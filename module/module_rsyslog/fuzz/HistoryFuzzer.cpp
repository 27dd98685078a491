// The whole road from the bytes of a user's files to records and reports. An input is
//   SETTINGS one byte, AT two bytes, CONTENT
// CONTENT up to AT is the history file of the first cycle, all of it, or what follows AT, that of
// the second, and it is the start-up file too. A real task reads real files in the sandbox.

#include <Poco/AutoPtr.h>

#include <cstdlib>
#include <filesystem>

#include "module/module_rsyslog/src/RsyslogTask.h"
#include "sdk/JsonUtils.h"
#include "test/support/TestSupport.h"

namespace {

const char* const kHistory = "/home/ann/.bash_history";
const char* const kRecordLog = "/var/log/history.log";

void Check(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// Takes every report on the sender's thread; each must be one line of JSON.
class CheckingReceiver : public Framework::Task {
public:
    CheckingReceiver()
        : Framework::Task("data_comm_report_task", "", Framework::TaskCondition::kPeriodic, 1) {}

    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const auto& report = dynamic_cast<const Framework::DataMessage&>(*message);
        const std::string& text = report.Content();
        const bool alarm = report.Type() == "rsyslog_3";
        Check(text.find('\n') == (alarm ? text.size() - 1 : std::string::npos));
        Json::Value parsed;
        Check(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), parsed) == 0);
        Check(parsed[alarm ? "content" : "cmd"].isString());
        return true;
    }
};

class FuzzedTask : public Engine::RsyslogTask {
public:
    // Each bit of `settings` switches one setting.
    explicit FuzzedTask(unsigned settings) {
        auto& policy = rsyslog_policy;
        policy.up_history = (settings & 1) == 0;
        policy.tchar_filter = (settings & 2) == 0;
        policy.white_list = {settings & 4 ? "" : "ls"};
        policy.his_count = settings & 8 ? 0 : 10000;
        policy.his_interval = settings & 16 ? -1 : 3000;
        policy.history_size = settings & 32 ? 1 : 10;
        policy.history_log_path = kRecordLog;
    }
    void Cycle() {
        BuildHistoryLog();
        // The baseline has moved on: the file is unchanged now, or empty, or too large.
        std::vector<std::string> lines;
        Check(!HistoryTailLogs(lines, rsyslog_policy.user_list.front()));
        CheckHistoryReport();
        Check(history_list.empty());
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    TestSupport::TestEngine().StartTask(new CheckingReceiver);
    std::filesystem::create_directories("/home/ann");
    TestSupport::WriteText("/etc/passwd", "ann:x:1000:1000::/home/ann:/bin/bash\n");
    // Before the engine goes, which must not have a thread still running.
    std::atexit([] { TestSupport::TestEngine().StopTask("data_comm_report_task"); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) {
        return 0;
    }
    const std::string content(reinterpret_cast<const char*>(data) + 3, size - 3);
    const std::size_t at = std::min<std::size_t>(data[1] * 256U + data[2], content.size());
    Poco::AutoPtr<FuzzedTask> task(new FuzzedTask(data[0]));
    TestSupport::WriteText("/home/ann/.bashrc", content);
    TestSupport::WriteText(kHistory, content.substr(0, at));
    task->Cycle();
    TestSupport::WriteText(kHistory, content.substr((data[0] & 64U) != 0 ? at : 0));
    task->Cycle();
    const std::string records = TestSupport::ReadText(kRecordLog);
    Check(records.empty() || records.back() == '\n');
    std::filesystem::remove(kRecordLog);
    return 0;
}
