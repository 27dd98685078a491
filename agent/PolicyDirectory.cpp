#include "agent/PolicyDirectory.h"

#include <Poco/Delegate.h>
#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

#include "framework/Log.h"
#include "sdk/FileUtils.h"
#include "sdk/StringUtils.h"
#include "sdk/Trust.h"

namespace {

// A writer's pause between two writes, and how long a busy directory may hold delivery up.
constexpr long kQuietMs = 200;
constexpr int kMaxQuietRounds = 10;
// The watcher sees neither the targets of links nor a directory put in this one's place, and it
// begins to watch some time after it is made.
constexpr long kRescanMs = 5000;

// Whether the file was written to a moment ago, so that more may follow.
bool IsFresh(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return false;
    }
    const auto modified = std::chrono::seconds(status.st_mtim.tv_sec) +
                          std::chrono::nanoseconds(status.st_mtim.tv_nsec);
    const auto age = std::chrono::system_clock::now().time_since_epoch() - modified;
    return age >= std::chrono::nanoseconds(0) && age < std::chrono::milliseconds(kQuietMs);
}

// What stands for a text in memory: its digest, itself where none can be made.
std::string Identity(const std::string& text) {
    std::string digest = SDK::StringUtils::Sha256(text);
    return digest.empty() ? text : digest;
}

// The content of a file that only those have written who may command the agent, or why not.
std::string ReadTrusted(const std::string& path, std::string& content) {
    SDK::FileUtils::FileReader file;
    if (const int error = file.Open(path); error != 0) {
        return std::strerror(error);
    }
    std::string why_not = file.Distrust();
    if (why_not.empty()) {
        why_not = SDK::Trust::WhyNotWay(path);  // of a link, where it leads
    }
    if (why_not.empty()) {
        if (const int error = file.Read(content, PolicyDirectory::kMaxPolicySize); error != 0) {
            return std::strerror(error);
        }
    }
    return why_not;
}

}  // namespace

PolicyDirectory::PolicyDirectory(const std::string& path, Deliver deliver, Settle settle, Lose lose)
    : path_(path),
      deliver_(std::move(deliver)),
      settle_(std::move(settle)),
      lose_(std::move(lose)) {
    watcher_ = std::make_unique<Poco::DirectoryWatcher>(path);
    watcher_->itemAdded += Poco::delegate(this, &PolicyDirectory::OnEvent);
    watcher_->itemModified += Poco::delegate(this, &PolicyDirectory::OnEvent);
    watcher_->itemRemoved += Poco::delegate(this, &PolicyDirectory::OnEvent);
    watcher_->itemMovedFrom += Poco::delegate(this, &PolicyDirectory::OnEvent);
    watcher_->scanError += Poco::delegate(this, &PolicyDirectory::OnError);
    watcher_->itemMovedTo += Poco::delegate(this, &PolicyDirectory::OnEvent);
    thread_.setName("policy");
    thread_.startFunc([this] { Run(); });
}

PolicyDirectory::~PolicyDirectory() {
    try {
        watcher_.reset();
        stopping_ = true;
        changed_.set();
        thread_.join();
    } catch (const std::exception&) {
        // Poco's words for a thread that is not there: nothing to wait for.
    }
}

void PolicyDirectory::OnError(const Poco::Exception& error) {
    Framework::Log().error("policy directory " + path_ +
                           " is not watched, only scanned: " + error.displayText());
}

void PolicyDirectory::OnEvent(const Poco::DirectoryWatcher::DirectoryEvent& /*event*/) {
    changed_.set();
}

void PolicyDirectory::Run() {
    while (!stopping_) {
        try {
            Scan();
            if (!stopping_) {
                settle_();
            }
        } catch (...) {
            Framework::LogException({"policy directory ", path_, " not scanned"});
        }
        if (changed_.tryWait(kRescanMs)) {
            WaitUntilQuiet();
        }
    }
}

void PolicyDirectory::WaitUntilQuiet() {
    for (int round = 0; round < kMaxQuietRounds && !stopping_ && changed_.tryWait(kQuietMs);
         ++round) {
    }
}

bool PolicyDirectory::List(std::set<std::string>& names) {
    std::string trouble = SDK::Trust::WhyNotDirectory(path_);
    try {
        for (Poco::DirectoryIterator entry(path_), end; trouble.empty() && entry != end; ++entry) {
            if (entry.path().getExtension() == "json") {
                names.insert(entry.name());
            }
        }
    } catch (const Poco::Exception& e) {
        trouble = e.displayText();
    }
    if (trouble != trouble_) {
        if (trouble.empty()) {
            Framework::Log().information("policy directory " + path_ + " is read again");
        } else {
            Framework::Log().error("policy directory " + path_ + " cannot be read: " + trouble);
        }
        trouble_ = trouble;
    }
    return trouble.empty();
}

void PolicyDirectory::Scan() {
    std::set<std::string> names;
    if (!List(names)) {
        return;
    }
    for (auto known = seen_.begin(); known != seen_.end();) {
        if (names.count(known->first) != 0) {
            ++known;
        } else {
            lose_(known->first, "");
            known = seen_.erase(known);
        }
    }
    for (const auto& name : names) {
        if (stopping_) {
            return;
        }
        if (IsFresh(path_ + "/" + name)) {
            changed_.set();
        } else {
            Read(name);
        }
    }
}

void PolicyDirectory::Read(const std::string& name) {
    const std::string path = path_ + "/" + name;
    Seen& seen = seen_[name];
    const SDK::FileStamp before = SDK::FileStamp::Of(path.c_str());
    if (seen.mark.Holds(before)) {
        return;
    }
    const std::int64_t began = SDK::ReadMark::Now();
    std::string content;
    const std::string why_not = ReadTrusted(path, content);
    seen.mark.Clear();
    if (why_not.empty()) {
        seen.mark.Set(before, SDK::FileStamp::Of(path.c_str()), began);
    }
    std::string now = why_not.empty() ? "=" + Identity(content) : "!" + why_not;
    if (seen.what == now) {
        return;
    }
    seen.what = std::move(now);
    if (!why_not.empty()) {
        Framework::Log().error("policy file " + path + " cannot be read: " + why_not);
        lose_(name, why_not);
        return;
    }
    deliver_(name, content);
}
