// Login records: reading the accounting file, closing sessions, record lines and reports.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utmp.h>
#include <utmpx.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/JsonUtils.h"

namespace {

using Engine::utmp_info;
using TestSupport::NewTask;
using TestSupport::OpenTask;
using TestSupport::OpenTaskPtr;
using TestSupport::ReadText;
using TestSupport::RunningReceiver;
using TestSupport::WriteText;
using Lines = std::vector<std::string>;

const char* const kFile = "/var/log/wtmp";
const char* const kRecordLog = "/tmp/last_login.log";
const std::size_t kStampLength = 20;

OpenTaskPtr LoginTask() {
    std::remove(kRecordLog);
    OpenTaskPtr task = NewTask();
    task->rsyslog_policy.get_lastlog = true;
    task->rsyslog_policy.up_lastlog = true;
    task->rsyslog_policy.last_login_log_path = kRecordLog;
    return task;
}

utmp Entry(int type, const std::string& line, const std::string& user, const std::string& host,
           int time, int pid = 7) {
    utmp entry = {};
    entry.ut_type = static_cast<short>(type);
    entry.ut_pid = pid;
    line.copy(entry.ut_line, sizeof(entry.ut_line));
    user.copy(entry.ut_user, sizeof(entry.ut_user));
    host.copy(entry.ut_host, sizeof(entry.ut_host));
    entry.ut_tv.tv_sec = time;
    return entry;
}

// Adds a record the way the system's login programs do.
void Log(const utmp& entry) {
    utmpx record = {};
    static_assert(sizeof(record) == sizeof(entry));
    std::memcpy(&record, &entry, sizeof(record));
    std::ofstream(kFile, std::ios::app).close();
    updwtmpx(kFile, &record);
}

std::string Bytes(const std::vector<utmp>& entries) {
    return {reinterpret_cast<const char*>(entries.data()), entries.size() * sizeof(utmp)};
}

// The lines of the record log without the stamp of their writing.
Lines Records() {
    std::istringstream text(ReadText(kRecordLog));
    Lines lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line.substr(kStampLength));
    }
    return lines;
}

// The rules once more, as plain as they can be told: every record is compared with every other.
// Stops when it has logged `stop_after` lines.
class Model {
public:
    explicit Model(std::size_t stop_after) : stop_after_(stop_after) {}

    void Pass(const std::string& file) {
        std::vector<utmp_info> fresh;
        for (std::size_t at = 0; at + sizeof(utmp) <= file.size() && !Stopped();
             at += sizeof(utmp)) {
            utmp entry;
            std::memcpy(&entry, file.data() + at, sizeof(entry));
            utmp_info record;
            record.type = entry.ut_type;
            record.pid = entry.ut_pid;
            record.line = Text(entry.ut_line);
            record.user = Text(entry.ut_user);
            record.host = Text(entry.ut_host);
            record.session = entry.ut_session;
            record.login_time = entry.ut_tv.tv_sec;
            const auto same = [&record](const utmp_info& known) {
                return known.type == record.type && Named(known) == Named(record);
            };
            const bool kept = record.type == 7 || record.type == 8 || record.type == 2;
            if (kept && std::none_of(list.begin(), list.end(), same)) {
                list.push_back(record);
                fresh.push_back(record);
            }
        }
        for (const utmp_info& record : fresh) {
            if (Stopped()) {
                break;
            }
            log.push_back("newlast type " + std::to_string(record.type) + " pid:" + Named(record));
            if (record.type != 7) {
                Close(record);
            }
        }
        for (utmp_info& login : list) {
            if (!Stopped() && login.type == 7 && login.pending) {
                Report(login);
                login.pending = false;
            }
        }
    }

    static Lines State(const std::vector<utmp_info>& list) {
        Lines state;
        for (const utmp_info& r : list) {
            state.push_back(std::to_string(r.type) + "," + Named(r) + "," +
                            std::to_string(r.logout_time) + (r.pending ? "!" : ""));
        }
        return state;
    }

    std::vector<utmp_info> list;
    Lines log, records, reports;

private:
    template <std::size_t Size>
    static std::string Text(const char (&field)[Size]) {
        return std::string(field, std::find(field, field + Size, 0));
    }
    static std::string Named(const utmp_info& r) {
        return std::to_string(r.pid) + "," + r.line + "," + r.user + "," + r.host + "," +
               std::to_string(r.session) + "," + std::to_string(r.login_time);
    }
    bool Stopped() const { return log.size() >= stop_after_; }

    void Close(const utmp_info& end) {
        for (utmp_info& login : list) {
            if (Stopped()) {
                return;
            }
            const bool open = login.type == 7 && login.logout_time == 0;
            if (!open || login.login_time > end.login_time ||
                (end.type == 8 && login.line != end.line)) {
                continue;
            }
            login.logout_time = end.login_time;
            login.pending = true;
            log.push_back((end.type == 8 ? "finddeadok pid:" : "findfindbootok pid:") +
                          Named(login) + ", " + std::to_string(login.logout_time));
            if (end.type == 8) {
                return;
            }
        }
    }

    void Report(const utmp_info& login) {
        OpenTaskPtr text = NewTask();
        const bool open = login.logout_time == 0;
        const std::string start = text->GetLocalTimeStr(login.login_time);
        const std::string end = open ? "0" : text->GetLocalTimeStr(login.logout_time);
        const std::string duration =
            open ? "0" : text->GetSplittimeStr(login.logout_time, login.login_time);
        records.push_back("sandbox " + login.user + " " + login.line + " " + login.host + " " +
                          start + " " + end + " " + duration);
        log.push_back("write last : " + records.back());
        Json::Value report;
        const char* const keys[] = {"user", "dev", "loginip", "start_time", "end_time", "duration"};
        const std::string* const values[] = {&login.user, &login.line, &login.host,
                                             &start,      &end,        &duration};
        for (int i = 0; i < 6; ++i) {
            report[keys[i]] = *values[i];
        }
        reports.push_back(SDK::JsonUtils::JsonToString(report));
        log.push_back("last_log message is [" + reports.back() + "]");
    }

    const std::size_t stop_after_;
};

// Collects the task's lines, without the stamp of their writing, and stops it after so many.
class StoppingChannel : public Poco::Channel {
public:
    StoppingChannel(OpenTaskPtr task, std::size_t stop_after)
        : task_(std::move(task)), stop_after_(stop_after) {}
    void log(const Poco::Message& message) override {
        lines.push_back(message.getText());
        const std::string written = "write last : ";
        if (lines.back().compare(0, written.size(), written) == 0) {
            lines.back().erase(written.size(), kStampLength);
        }
        if (lines.size() == stop_after_) {
            task_->RequestStop();
        }
    }
    Lines lines;

private:
    OpenTaskPtr task_;
    const std::size_t stop_after_;
};

utmp RandomEntry(std::mt19937& random) {
    const auto any = [&random](int count) { return static_cast<int>(random() % count); };
    utmp entry = {};
    if (any(20) == 0) {  // noise, with fields that do not end
        for (std::size_t at = 0; at < sizeof(entry); ++at) {
            // Newlines would make lines of the record log hard to tell apart.
            reinterpret_cast<char*>(&entry)[at] = static_cast<char>(any(240) + 11);
        }
        entry.ut_type = any(2) == 0 ? 7 : 8;
        return entry;
    }
    const int kinds[] = {7, 7, 7, 7, 8, 8, 8, 2, 1, 6};
    const char* const lines[] = {"pts/0", "pts/1", "tty1"};
    entry = Entry(kinds[any(10)], lines[any(3)], any(2) == 0 ? "root" : "al",
                  any(2) == 0 ? "" : "h", any(9) - 3, any(2));
    entry.ut_session = any(8) == 0 ? -1 : 0;
    return entry;
}

TEST(Login, AgreesWithAPlainReading) {
    setenv("TZ", "KTM-5:45", 1);
    Poco::Logger& logger = Poco::Logger::get("module_rsyslog");
    for (unsigned seed = 0; seed < 2000 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool traced = seed % 3 != 0;
        const std::size_t stop_after = traced && seed % 4 == 0 ? random() % 60 + 1 : 100000;
        OpenTaskPtr task = LoginTask();
        Model model(stop_after);
        RunningReceiver receiver;
        const Poco::AutoPtr<StoppingChannel> channel(new StoppingChannel(task, stop_after));
        logger.setLevel(traced ? Poco::Message::PRIO_TRACE : Poco::Message::PRIO_INFORMATION);
        logger.setChannel(channel);
        std::string file;
        for (int pass = 0; pass < 4; ++pass) {
            if (random() % 6 == 0) {
                file.clear();  // rotated
            }
            for (unsigned left = random() % 24; left > 0; --left) {
                file += Bytes({RandomEntry(random)});
            }
            const std::string torn = file.substr(0, random() % 100);
            WriteText(kFile, file + torn);
            task->BuildLastInfo();
            model.Pass(file);
        }
        logger.setChannel(nullptr);
        if (traced) {
            EXPECT_EQ(model.log, channel->lines);
        }
        EXPECT_EQ(model.records, Records());
        Lines reports;
        for (const auto& [type, content] : receiver.Finish()) {
            EXPECT_EQ("rsyslog_2", type);
            reports.push_back(content);
        }
        EXPECT_EQ(model.reports, reports);
        EXPECT_EQ(Model::State(model.list), Model::State(task->utmp_list));
    }
}

TEST(Login, LinesAndReportsByteForByte) {
    setenv("TZ", "UTC0", 1);
    std::remove(kFile);
    OpenTaskPtr task = LoginTask();
    RunningReceiver receiver;
    Log(Entry(7, "pts/0", "root", "10.0.0.9", 1700000000));
    Log(Entry(7, "tty1", "al\xff", "", 1700000060));
    task->BuildLastInfo();
    task->BuildLastInfo();
    EXPECT_EQ((Lines{"sandbox root pts/0 10.0.0.9 2023-11-14 22:13:20  0 0",
                     "sandbox al\xff tty1  2023-11-14 22:14:20  0 0"}),
              Records());
    Log(Entry(8, "tty1", "", "", 1700000059));  // too early to end it
    Log(Entry(8, "pts/0", "", "", 1700003661));
    task->rsyslog_policy.up_lastlog = false;
    task->BuildLastInfo();
    Log(Entry(2, "~", "reboot", "6.1", 1700096461));
    task->rsyslog_policy.up_lastlog = true;
    task->BuildLastInfo();
    const Lines records = Records();
    ASSERT_EQ(4U, records.size());
    EXPECT_EQ("sandbox root pts/0 10.0.0.9 2023-11-14 22:13:20  2023-11-14 23:14:21  01:01:01",
              records[2]);
    EXPECT_EQ("sandbox al\xff tty1  2023-11-14 22:14:20  2023-11-16 01:01:01  1+02:46:41",
              records[3]);
    const auto reports = receiver.Finish();
    ASSERT_EQ(3U, reports.size());
    EXPECT_EQ(R"({"dev":"pts/0","duration":"0","end_time":"0","loginip":"10.0.0.9",)"
              R"("start_time":"2023-11-14 22:13:20 ","user":"root"})",
              reports[0].second);
    EXPECT_EQ(R"({"dev":"tty1","duration":"1+02:46:41","end_time":"2023-11-16 01:01:01 ",)"
              R"("loginip":"","start_time":"2023-11-14 22:14:20 ","user":"al\ufffd"})",
              reports[2].second);
}

// Sessions ended by a logout, as the system's own tool sees them.
TEST(Login, AgreesWithLast) {
    setenv("TZ", "KTM-5:45", 1);
    std::remove(kFile);
    std::mt19937 random(1);
    std::map<std::string, std::string> on;  // line to user
    std::set<std::string> boots;
    OpenTaskPtr task = LoginTask();
    for (int time = 1700000000, i = 0; i < 2000;
         ++i, time += static_cast<int>(random() % 90000) + 1) {
        const std::string line = "pts/" + std::to_string(random() % 5);
        if (random() % 40 == 0) {
            Log(Entry(2, "~", "reboot", "k", time, 0));
            boots.insert(task->GetLocalTimeStr(time));
            on.clear();
        } else if (on.count(line) != 0) {
            Log(Entry(8, line, "", "", time));
            on.erase(line);
        } else {
            on[line] = "u" + std::to_string(random() % 3);
            Log(Entry(7, line, on[line], "h" + std::to_string(i), time));
        }
    }
    task->BuildLastInfo();
    // Name, line, host, date and time of the login, the same of the logout.
    std::set<std::string> ours;
    for (const auto& login : task->utmp_list) {
        const std::string end = task->GetLocalTimeStr(login.logout_time);
        if (login.type == 7 && login.logout_time != 0 && boots.count(end) == 0) {
            ours.insert(login.user + " " + login.line + " " + login.host + " " +
                        task->GetLocalTimeStr(login.login_time) + end);
        }
    }
    ASSERT_EQ(0, std::system("LC_ALL=C last -F -f /var/log/wtmp >/tmp/last.txt"));
    std::set<std::string> theirs;
    std::istringstream text(ReadText("/tmp/last.txt"));
    for (std::string line; std::getline(text, line);) {
        std::istringstream words(line);
        std::string user, tty, host, dates;
        words >> user >> tty >> host;
        std::getline(words, dates);
        std::tm start = {}, end = {};
        const char* const rest = strptime(dates.c_str(), " %a %b %d %H:%M:%S %Y -", &start);
        if (user != "reboot" && rest != nullptr &&
            strptime(rest, " %a %b %d %H:%M:%S %Y", &end) != nullptr) {
            char times[2 * kStampLength + 1] = {};
            std::strftime(times, sizeof(times), "%Y-%m-%d %H:%M:%S ", &start);
            std::strftime(times + kStampLength, kStampLength + 1, "%Y-%m-%d %H:%M:%S ", &end);
            std::ostringstream session;
            session << user << " " << tty << " " << host << " " << times;
            theirs.insert(session.str());
        }
    }
    EXPECT_GT(theirs.size(), 500U);
    EXPECT_EQ(theirs, ours);
}

TEST(Login, WhatIsNoAccountingFile) {
    namespace fs = std::filesystem;
    for (const std::string command :
         {"true", ": >/var/log/wtmp", "mkdir /var/log/wtmp", "mkfifo /var/log/wtmp",
          "ln -s /dev/zero /var/log/wtmp", "ln -s wtmp /var/log/wtmp", "printf 7 >/var/log/wtmp",
          // The C library reads this one in the other's place.
          "mkfifo /var/log/wtmpx; : >/var/log/wtmp"}) {
        SCOPED_TRACE(command);
        fs::remove_all(kFile);
        ASSERT_EQ(0, std::system(command.c_str()));
        OpenTaskPtr task = LoginTask();
        std::vector<utmp_info> fresh(1);
        task->ReadLastAllinfo(fresh);
        EXPECT_TRUE(fresh.empty() && task->utmp_list.empty());
        fs::remove_all(kFile);
        fs::remove("/var/log/wtmpx");
        Log(Entry(7, "tty1", "al", "", 5));
        task->ReadLastAllinfo(fresh);  // the next pass finds what has come
        EXPECT_EQ(1U, fresh.size());
    }
    fs::remove_all(kFile);
}

// The reader works on a thread of its own, as it does in the agent.
TEST(Login, ALockedFileIsLeftForLater) {
    std::remove(kFile);
    // Under this name, too, it is looked at.
    ASSERT_EQ(0, symlink("wtmp", "/var/log/wtmpx"));
    OpenTaskPtr task = LoginTask();
    std::vector<utmp_info> fresh;
    Log(Entry(7, "tty1", "al", "", 5));
    task->ReadLastAllinfo(fresh);
    Log(Entry(8, "tty1", "", "", 9));
    // No longer just changed: a whole reading would not be repeated.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    int ready[2] = {-1, -1};
    ASSERT_EQ(0, pipe(ready));
    const pid_t writer = fork();
    if (writer == 0) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        fcntl(open(kFile, O_RDWR), F_SETLK, &lock);
        [[maybe_unused]] const ssize_t told = write(ready[1], "x", 1);
        pause();
    }
    char byte = 0;
    EXPECT_EQ(1, read(ready[0], &byte, 1));
    const auto reads_within = [&](OpenTask& reading, int seconds, bool stop) {
        std::atomic<bool> done{false};
        std::thread reader([&] {
            reading.ReadLastAllinfo(fresh);
            done = true;
        });
        while (stop && reading.utmp_mutex.tryLock()) {  // free: the reading has not begun
            reading.utmp_mutex.unlock();
        }
        if (stop) {
            reading.RequestStop();
        }
        const bool in_time =
            TestSupport::Await([&] { return done.load(); }, std::chrono::seconds(seconds));
        if (!in_time) {
            kill(writer, SIGKILL);
        }
        reader.join();
        return in_time;
    };
    EXPECT_TRUE(reads_within(*task, 20, false));  // 10 s, not for ever
    EXPECT_TRUE(fresh.empty());
    EXPECT_TRUE(reads_within(*LoginTask(), 5, true));
    EXPECT_TRUE(fresh.empty());
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_TRUE(reads_within(*task, 20, false));
    EXPECT_EQ(1U, fresh.size());
    std::remove("/var/log/wtmpx");
}

TEST(Login, EveryOtherCycle) {
    std::remove(kFile);
    for (const bool enabled : {true, false}) {
        OpenTaskPtr task = LoginTask();
        task->rsyslog_policy.get_lastlog = enabled;
        std::size_t known = 0;
        for (int run = 1; run <= 53; ++run) {
            Log(Entry(7, "tty1", "al", "", 1000 * run));
            task->Run();
            const bool collects = enabled && task->cycle_count % 2 == 0;
            EXPECT_EQ(collects, task->utmp_list.size() > known) << run;
            known = task->utmp_list.size();
        }
        EXPECT_EQ(3, task->cycle_count);
    }
}

}  // namespace
