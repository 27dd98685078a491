#pragma once

#include <Poco/Mutex.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "framework/AbstractMessageReceiver.h"
#include "framework/Task.h"
#include "module/module_rsyslog/src/RsyslogPolicy.h"
#include "module/module_rsyslog/src/SyslogDaemon.h"
#include "sdk/FileStamp.h"
#include "sdk/ReadMark.h"

namespace Engine {

// One local user whose shell history is watched.
struct user_info {
    bool tail_ready = false;        // a baseline of the history file has been taken
    std::string history_hash;       // SHA-256 of the file as last seen
    std::string name;               // login name
    std::string home;               // home directory as the password file has it
    std::string history_path;       // the history file
    char history_tail[1025] = {};   // its last bytes, at most 1024, as last seen; zero-terminated
    SDK::ReadMark read_mark;        // of the last look at the file that found nothing new,
    bool marked_unchanged = false;  // which was as last seen, or else out of bounds
    std::vector<std::string> unparsed;  // lines read in a cycle that could not deal with all
    bool first_recorded = false;        // the first of them is in the record log
};

// One shell command waiting for its report.
struct history_info {
    std::string time;   // local time of the cycle that read it
    std::string stamp;  // the time-stamp line of the shell, or the marker of a command without one
    std::string cmd;
    std::string user;
    bool need_report = true;
};

// One login accounting record; a login with its logout is a session.
struct utmp_info {
    std::int16_t type = 0;
    std::int32_t pid = 0;
    std::string line;
    std::string user;
    std::string host;
    std::int64_t session = 0;
    std::int64_t login_time = 0;   // seconds since the epoch
    std::int64_t logout_time = 0;  // 0: open
    bool pending = true;           // has news not yet reported

    // The same record of the file, whatever became of it since.
    bool operator==(const utmp_info& other) const {
        return login_time == other.login_time && type == other.type && pid == other.pid &&
               session == other.session && line == other.line && user == other.user &&
               host == other.host;
    }
};

// The module's worker. Each Run is one cycle on the task's own thread, and all work happens there:
// nothing but the pending stop is shared with other threads. A failure is logged where it happens
// and the cycle goes on.
class RsyslogTask : public Framework::Task, public AbstractMessageReceiver {
public:
    RsyslogTask();

    // Copies the settings of the attached policy; 0 when there is none, or one of another class.
    int Init() override;
    void UnInit() override;
    // One cycle. Always 0.
    int Run() override;

protected:
    ~RsyslogTask() override = default;

    // --- RsyslogTask.cpp: cycle, daemon detection, alarms ---

    void RunSyslogConf();

    // Sets is_rsyslog and is_syslogng from the process table: the first process that is one of the
    // daemons decides. Without a table both stay as they were. Raises Poco's bug check when there
    // is no application.
    void CheckSyslogRunning();

    // Reports that no daemon runs (1) or that rsyslog has no include directory (2). False for any
    // other code.
    bool SendRsyslogAlarm(int code);

    // Reports that the start-up file `path` of `user` holds `hist_conf`, unless the same was
    // reported in the last four hours. `now`: seconds since the epoch. `found` becomes what was
    // known of that alarm before, or the map's end. Alarms older than that are forgotten.
    void SendRsyslogAlarm(const user_info& user, const std::string& path,
                          const std::string& hist_conf,
                          std::map<std::string, std::int64_t>::iterator& found, std::int64_t now);

    // --- RsyslogTaskForwarding.cpp: servers, rsyslog's configuration ---

    // The host's IPv4 addresses in the system's order; skip_loopback leaves out 127.0.0.x, no other
    // loopback. False, with `addresses` empty, when the interfaces cannot be read.
    bool GetLocalIpList(std::vector<std::string>& addresses, bool skip_loopback);

    // Connects, waiting `timeout` seconds at most, and leaves the socket non-blocking. Returns the
    // status flags the socket had; says nothing of success.
    int DoConnect(int socket, int timeout, const sockaddr_in& address) const;

    // Probes ip (dotted, or a name) and port (decimal) over TCP: up to 3 s behind the look-up of a
    // name, which takes as long as the system's resolver does and ends with a stop. False whatever
    // the probe finds: no server counts as reachable over TCP.
    bool CheckIpReachable(const std::string& ip, const std::string& port);

    // With `check`, removes the servers of `entry` that are unreachable; `changed` becomes true
    // when one was.
    void CleanUnreachableIp(bool check, path_port& entry, bool& changed);

    // Which of `count` servers this host is to use, 0 to count - 1, from its first address.
    int GetServiceBalanceCount(int count);

    // Brings the servers of every forwarded file up to date; true when the daemon's configuration
    // must be written again. With probes, that is over TCP, a stop ends it with false.
    bool CheckSyslogNeedRewrite();

    // As FindIncludeDirectory; false when nothing is found.
    bool GetIncludeConfigPath(char* out, int size);

    // Appends to `out` the input and the forwarding rules of each entry, facility local<index + 1>
    // first, local7 last. `prefix`: "@@" for TCP, "@" for UDP; `now` names the state files.
    void GenerateRsyslogConfContent(int index, const char* prefix, const timeval& now,
                                    std::string& out);

    // The content of rsyslog's include file; false, with no use of it, for a server type of neither
    // kind.
    bool BuildRsyslogConf(std::string& content);
    // Writes the include file. False, with nothing written, for a server type that begins neither
    // with "tcp" nor with "udp".
    bool CreatAndWriteRsyslogConf(const char* path);

    // Replaces the include file in `include_dir` and restarts rsyslog when it was written. The old
    // file is gone also when the new one cannot be written.
    void RsyslogConfRewrite(const char* include_dir);

    // --- RsyslogTaskSyslogng.cpp: the marked blocks of syslog-ng and of its AppArmor profile ---
    // A failed step is logged and leaves the administrator's own text whole on disk, in the file
    // or, block removed, in its backup.

    // The block for all entries into `out`, numbering destinations and sources from the given
    // numbers + 1; empty when nothing is forwarded.
    void GenerateSyslogngConfContent(int destination, int source, std::string& out);

    // Remove the block. True also when there is none; false when the file cannot be read or
    // written.
    bool DeleteSyslogngWatchpostConf();
    bool DeleteSyslogngReadAuditConf();

    // Replace the block: the old one is removed, the file backed up, the new one added at the end
    // of the configuration, or before the last "}" of the profile. True only when written.
    bool OverWriteSyslogngConf();
    bool OverWriteSyslogngReadAuditConf();

    // --- RsyslogTaskServices.cpp: restarts, and what comes of them ---

    // Rewrites syslog-ng's configuration and its AppArmor profile; only when both were written,
    // restarts AppArmor and the syslog service.
    void SyslogServiceManage();

    // --- RsyslogTaskHistory.cpp: users, start-up files, history files ---

    // Appends to user_list each entry of /etc/passwd not yet in it, by name and home, that can log
    // in: its shell does not begin with /bin/false or /sbin/nologin. An entry of more than 4 KiB
    // ends the pass. Nothing is ever removed. A file that has not changed is not read again.
    void SyslogGetUserList();

    // Raises an alarm that quotes the lines of the start-up file `path` that touch the shell
    // history, a HISTSIZE of at least 5000 apart. Reads the file, up to 10 MiB, only when its
    // modification time has changed.
    void CheckHistoryProfile(const user_info& user, const std::string& path);

    // Takes a baseline of the file at `path`: its hash, only if `with_hash`, and its last bytes, at
    // most 1024, zero-filled; both of one moment. False when it cannot be hashed or opened.
    bool HistorySetLogPath(std::string& hash, bool with_hash, char (&tail)[1025], const char* path);

    // Appends to `lines` what the history file has gained since the baseline and moves that on;
    // without a baseline that is the whole file. False, with nothing changed, when the file is
    // unchanged, empty, larger than history_size MiB or 10 MiB, or cannot be read. Lines, hash and
    // last bytes are of one moment: what is appended meanwhile is new the next time. Regular files
    // only; a FIFO or device in its place is an error, never a wait, and so is a link to a file of
    // somebody else's.
    bool HistoryTailLogs(std::vector<std::string>& lines, user_info& user);

    // One pass over all users: start-up files, then new commands. Commands without a time stamp
    // are recorded and reported at once, the others queued. A file with which something throws is
    // told of in one line and passed over until it changes; the others have their turn.
    void BuildHistoryLog();

    // --- RsyslogTaskCommands.cpp: commands, pacing, reports ---

    // Whether the line is the shell's "#" with a time of 10 to 13 digits, whatever follows.
    bool HistoryFindTimestamp(std::string line);

    // Whether the command is to be dropped: it equals an entry of the white list, or ends in three
    // tabs and tchar_filter is set.
    bool HistoryFindWhiteCmd(const std::string& cmd);

    // Makes records of the new lines of `user`. `time`: of the cycle, with its blank.
    void ParseHistoryLog(const std::list<user_info>::iterator& user, const char* host_name,
                         const std::string& time, const std::vector<std::string>& lines);

    // Records and reports the queued commands, and empties the queue. From his_count commands on,
    // those less than his_interval from an earlier one are left out.
    void CheckHistoryReport();

    // Reports one command, if up_history is set and none of its texts is empty.
    void SendHistoryLogInfo(const history_info& record);

    // --- RsyslogTaskRecords.cpp: time strings, record logs ---

    // "YYYY-MM-DD hh:mm:ss " in local time, with the blank at its end; "0" for a time that has no
    // calendar date.
    std::string GetLocalTimeStr(std::int64_t seconds);

    // The time between as "hh:mm:ss", after "DAYS+" from one day on; "0" when `later` is not later.
    std::string GetSplittimeStr(std::int64_t later, std::int64_t earlier);

    // The milliseconds of a shell's time-stamp line, "#" and digits: seconds below 11 digits,
    // milliseconds from there on. 0 for a text of less than 5 characters.
    std::int64_t LogtimeToInt(const std::string& stamp);

    // Appends `text`, newline-terminated, to the file at `path`, behind a newline where a crash has
    // left half a record; rotates it to `path`.0 first when the write would reach the limit
    // (history_size MiB, 0: never). False when not every byte is written; then none is. Opens and
    // closes the file on every call, and waits for nobody who reads it.
    bool HistoryWriteLog(std::string text, std::string path);

    // Renames the file at `path` to `path`.0, replacing an earlier one.
    void HistoryBackupLog(const std::string& path);

    // --- RsyslogTaskLogin.cpp: login records ---

    // Selects the accounting file `path` (null: /var/run/utmp) for reading and returns 0 with
    // utmp_mutex held until UtmpEndutent, or what failed, unlocked. That the file is missing shows
    // in the first read. Both throw Poco::SystemException when the mutex fails.
    int UtmpSetutent(const char* path);
    void UtmpEndutent();

    // Reads the logins, logouts and boots of /var/log/wtmp (of /var/log/wtmpx where there is one,
    // as the C library has it) that are not in utmp_list yet, and appends them to it and, from
    // empty, to `new_records`. What is no regular file holds none. A torn record at the end is left
    // for later, and so is all behind the point where another process keeps the file locked for 10
    // s, or where the task is asked to stop. A file that has not changed since it was read to its
    // end is not read again.
    void ReadLastAllinfo(std::vector<utmp_info>& new_records);

    // Closes the open logins of utmp_list that the logouts and boots of `new_records` end.
    void ParseEveryUtmp(const std::vector<utmp_info>& new_records);

    // The login step of a cycle: a record line and a report for each login with news.
    void BuildLastInfo();

    // Reports a login, unless up_lastlog is off.
    void SendLastLogInfo(const utmp_info& record);

    // The settings, with the servers and the run-time flags as the cycles leave them.
    RsyslogPolicy::RSYSLOG_POLICY rsyslog_policy;
    std::list<history_info> history_list;
    std::int32_t cycle_count = 0;  // cycles since the last full pass
    std::string rsyslog_conf_file;
    std::vector<utmp_info> utmp_list;  // every login record so far, in reading order
    Poco::FastMutex utmp_mutex;        // the C library's accounting cursor is one for the process
    // Alarm keys ("user:...") with the time of the last alarm, and paths of start-up files with
    // their modification time; seconds since the epoch.
    std::map<std::string, std::int64_t> alarm_time_map;

private:
    // The full pass: which daemon runs, and is its configuration current?
    void MaintainForwarding();
    // Rsyslog's configuration is the one written when both seem to run.
    DaemonKind ChosenDaemon() const;
    void SendDaemonAlarm(int code);
    // Sets `address` to the IPv4 address of `host`, dotted or a name; false also at a stop.
    bool Resolve(const std::string& host, in_addr& address) const;
    // Runs restart commands one after the other, a minute at most; those behind one that took it
    // all get another. A stop does not wait for them.
    void Restart(std::list<std::string> commands);
    // After a restart: does the daemon run, and does it accept its configuration?
    void ConfirmForwarding();
    // Drops alarms from alarm_time_map, but for that under the key `latest`, that are too old to
    // suppress another.
    void ForgetOldAlarms(const std::string& latest, std::int64_t now);

    // What is new in /etc/passwd, into user_list.
    void AddUsers();
    // Runs `step`, which works on the file at `path`, unless it threw before on this state of the
    // file.
    template <typename Step>
    void Shielded(const std::string& path, Step step);
    // Notes that a cycle has lost commands or put them off.
    void CutHistory();
    // A user's turn with the history file, and the parsing of what is left over from the last one.
    void ReadCommands(std::list<user_info>::iterator user, const char* host_name,
                      const std::string& time);

    // history_size in bytes. Counted in 32 bits: from 2048 MiB on it wraps, and what is negative
    // then counts as very large.
    std::uint64_t HistorySizeLimit() const;

    // Both clear need_report of each queued command that is less than his_interval from an earlier
    // one, whether that is itself suppressed or not; PaceHistory in n log n, the other pair by pair
    // with a trace line for each. A stop leaves the rest as it is. PaceHistory returns how many
    // commands it was through with: all, unless memory ran out.
    std::size_t PaceHistory();
    void PaceHistoryByPairs();
    // Takes the first `count` commands off the queue, sends those that are to be reported, and
    // returns their lines of the record log. What throws ends it, with an error line; the rest
    // stays.
    std::string ReportQueued(std::size_t count, const std::string& host_name);

    static void EndLogin(utmp_info& login, const utmp_info& end);
    // Between two elements of utmp_list on the way to the logins that end: false at a stop.
    bool NextElement() const;
    // The places of the open logins in utmp_list; cut short when the task is asked to stop.
    std::vector<std::size_t> FindOpenLogins() const;
    // The times of a login as record line and report show them; "0" for an end yet to come.
    struct SessionTexts {
        std::string start;
        std::string end;
        std::string duration;
    };
    SessionTexts DescribeSession(const utmp_info& login);

    bool restarted = false;            // and not yet confirmed
    std::size_t forget_alarms_at = 0;  // the length of alarm_time_map from which on to do so
    std::map<std::string, SDK::FileStamp> failed_files;  // by path, as they were
    SDK::ReadMark passwd_read;
    SDK::ReadMark logins_read;     // of the last pass that reached the file's end
    bool logins_whole = false;     // the last pass did, or knew nothing was new
    bool history_whole = false;    // nothing was cut in this cycle
    std::size_t parsed_lines = 0;  // how many lines ParseHistoryLog was through with
};

}  // namespace Engine
