#pragma once

#include <string>

// What the fleet's things are called in the cluster.
namespace Fleet {

constexpr char kReportStream[] = "watchpost_reports";
constexpr char kReportSubjects[] = "watchpost.report.";  // HOST.TYPE follows
constexpr char kPolicyBucket[] = "watchpost_policies";   // keys: host.HOST, group.GROUP, all
constexpr char kPolicyChanges[] = "watchpost.policy.";   // a policy's key: news of it
constexpr char kInboxes[] = "watchpost.inbox.";          // HOST follows: what it is answered
constexpr char kHostBucket[] = "watchpost_hosts";        // keys: HOST
// The streams that the buckets are.
constexpr char kPolicyStream[] = "KV_watchpost_policies";
constexpr char kHostStream[] = "KV_watchpost_hosts";

// A name of any bytes as one token of a subject, which is also good in a bucket's key: letters,
// digits, "-" and "_" as they are, all else as "=" and two hexadecimal digits. Not for empty names.
std::string Escape(const std::string& name);
// The name again; false when the token is not what Escape makes of any.
bool Unescape(const std::string& token, std::string& name);

// A policy's key with its name as a person writes it.
std::string Readable(const std::string& key);

// The subjects that values of the buckets are stored under. A value published there is put.
std::string SubjectOfPolicy(const std::string& key);
std::string SubjectOfHost(const std::string& host);
std::string SubjectOfHosts();  // of all of them

}  // namespace Fleet
