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
#include <set>
#include <utility>

#include "framework/Log.h"
#include "sdk/FileUtils.h"

namespace {

constexpr std::size_t kMaxPolicySize = 1 << 20;
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

}  // namespace

PolicyDirectory::PolicyDirectory(const std::string& path, Deliver deliver)
    : path_(path), deliver_(std::move(deliver)) {
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
        Scan();
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

void PolicyDirectory::Scan() {
    std::set<std::string> names;
    try {
        for (Poco::DirectoryIterator entry(path_), end; entry != end; ++entry) {
            if (entry.path().getExtension() == "json") {
                names.insert(entry.name());
            }
        }
    } catch (const Poco::Exception& e) {
        Framework::Log().error("policy directory " + path_ + " cannot be read: " + e.displayText());
        return;
    }
    for (auto known = seen_.begin(); known != seen_.end();) {
        known = names.count(known->first) == 0 ? seen_.erase(known) : std::next(known);
    }
    for (const auto& name : names) {
        if (stopping_) {
            return;
        }
        if (IsFresh(path_ + "/" + name)) {
            changed_.set();
            continue;
        }
        std::string content;
        const int status = SDK::FileUtils::ReadFile(path_ + "/" + name, content, kMaxPolicySize);
        // An unreadable file is reported once for each reason, not at every event.
        std::string& seen = seen_[name];
        const std::string now =
            status == 0 ? "=" + content : std::string("!") + std::strerror(status);
        if (seen == now) {
            continue;
        }
        seen = now;
        if (status != 0) {
            Framework::Log().error("policy file " + path_ + "/" + name +
                                   " cannot be read: " + std::strerror(status));
            continue;
        }
        deliver_(name, content);
    }
}
