#include "module/module_fleet/src/Spool.h"

#include <Poco/Exception.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>
#include <tuple>

#include "sdk/StringUtils.h"

namespace Fleet {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kChunk = 256 << 10;
constexpr off_t kHead = 512;  // bytes that tell a file from another one with its inode
constexpr auto kScanInterval = std::chrono::milliseconds(500);

bool IsCompressed(const std::string& name) {
    static const std::set<std::string> kSuffixes{".gz", ".xz", ".bz2", ".zst"};
    return kSuffixes.count(fs::path(name).extension()) != 0;
}

}  // namespace

struct Spool::File {
    SDK::Descriptor descriptor;
    struct stat status = {};  // as of the last scan
    off_t read = 0;
    off_t done = 0;
    off_t exhausted = -1;  // the size at which nothing more was to be had

    // The digest of the first `length` bytes; empty when there are fewer.
    std::string Head(off_t length) const {
        std::array<char, kHead> bytes{};
        const auto wanted = static_cast<std::size_t>(std::min(length, kHead));
        return pread(descriptor.Get(), bytes.data(), wanted, 0) == static_cast<ssize_t>(wanted)
                   ? SDK::StringUtils::Sha256({bytes.data(), wanted})
                   : "";
    }
};

Spool::Spool(std::string path) : path_(std::move(path)), positions_(Json::arrayValue) {}
Spool::~Spool() = default;

bool Spool::Next(Line& line) {
    while (true) {
        if (current_ != nullptr && Take(line)) {
            return true;
        }
        if (!Open()) {
            return false;
        }
    }
}

void Spool::Finish(const Line& line) {
    line.file->done = line.end;
}

void Spool::Rewind() {
    for (auto& file : files_) {
        file->read = file->done;
        file->exhausted = -1;
    }
    current_.reset();
    next_scan_ = {};
}

bool Spool::Open() {
    current_.reset();
    const auto now = std::chrono::steady_clock::now();
    if (now < next_scan_) {
        return false;
    }
    Scan();
    const auto unread = std::find_if(files_.begin(), files_.end(), [](const auto& file) {
        return file->status.st_size > file->read && file->status.st_size != file->exhausted;
    });
    if (unread == files_.end()) {
        next_scan_ = now + kScanInterval;
        return false;
    }
    current_ = *unread;
    buffer_.clear();
    begin_ = looked_ = 0;
    return true;
}

bool Spool::Take(Line& line) {
    File& file = *current_;
    while (true) {
        const std::size_t newline = buffer_.find('\n', looked_);
        if (newline != std::string::npos) {
            const std::size_t length = newline - begin_;
            line.text.assign(buffer_, begin_, length);
            begin_ = looked_ = newline + 1;
            file.read += static_cast<off_t>(length) + 1;
            line.file = current_;
            line.end = file.read;
            return true;
        }
        buffer_.erase(0, begin_);
        begin_ = 0;
        looked_ = buffer_.size();
        if (looked_ > kMaxLine) {
            file.read += static_cast<off_t>(looked_);
            buffer_.clear();
            looked_ = 0;
        }
        buffer_.resize(looked_ + kChunk);
        const ssize_t got = pread(file.descriptor.Get(), &buffer_[looked_], kChunk,
                                  file.read + static_cast<off_t>(looked_));
        buffer_.resize(looked_ + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0) {
            throw Poco::IOException(path_, std::strerror(errno));
        }
        if (got == 0) {
            file.exhausted = file.read + static_cast<off_t>(looked_);
            std::string().swap(buffer_);  // it may be large
            begin_ = looked_ = 0;
            return false;
        }
    }
}

void Spool::Scan() {
    const fs::path path(path_);
    const std::string name = path.filename();
    std::error_code error;
    for (fs::directory_iterator entry(path.parent_path(), error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string other = entry->path().filename();
        if (other == name ||
            (other.compare(0, name.size(), name) == 0 &&
             (other[name.size()] == '.' || other[name.size()] == '-') && !IsCompressed(other))) {
            Add(entry->path());
        }
    }
    // A file that is only out of reach must not count as read.
    if (error && error != std::errc::no_such_file_or_directory) {
        throw Poco::IOException("directory of " + path_, error.message());
    }
    struct stat named = {};
    const bool exists = stat(path_.c_str(), &named) == 0;
    for (auto& file : files_) {
        fstat(file->descriptor.Get(), &file->status);
        if (file->status.st_size < file->done) {
            file->read = file->done = 0;
            file->exhausted = -1;
        }
    }
    files_.erase(std::remove_if(files_.begin(), files_.end(),
                                [](const auto& file) {
                                    return file->status.st_nlink == 0 &&
                                           (file->done == file->status.st_size ||
                                            file->exhausted == file->status.st_size) &&
                                           file->done == file->read;
                                }),
                 files_.end());
    std::sort(files_.begin(), files_.end(), [&](const auto& one, const auto& other) {
        const auto order = [&](const struct stat& status) {
            return std::make_tuple(exists && status.st_ino == named.st_ino, status.st_mtim.tv_sec,
                                   status.st_mtim.tv_nsec);
        };
        return order(one->status) < order(other->status);
    });
}

void Spool::Add(const std::string& path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        std::any_of(files_.begin(), files_.end(), [&](const auto& file) {
            return file->status.st_dev == status.st_dev && file->status.st_ino == status.st_ino;
        })) {
        return;
    }
    const auto file = std::make_shared<File>();
    const int error =
        file->descriptor.Reset(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (error == ENOENT) {
        return;
    }
    if (error != 0) {
        throw Poco::IOException(path, std::strerror(error));
    }
    if (fstat(file->descriptor.Get(), &file->status) != 0 || !S_ISREG(file->status.st_mode)) {
        return;
    }
    file->read = file->done = PlaceOf(*file);
    files_.push_back(file);
}

off_t Spool::PlaceOf(const File& file) const {
    const auto is = [](const Json::Value& number, std::uint64_t wanted) {
        return number.isUInt64() && number.asUInt64() == wanted;
    };
    for (const Json::Value& position : positions_) {
        const Json::Value& offset = position["offset"];
        if (is(position["device"], file.status.st_dev) &&
            is(position["inode"], file.status.st_ino) && offset.isInt64() &&
            offset.asInt64() >= 0 && offset.asInt64() <= file.status.st_size &&
            position["head"] == file.Head(offset.asInt64())) {
            return offset.asInt64();
        }
    }
    return 0;
}

Json::Value Spool::Positions() {
    Json::Value positions(Json::arrayValue);
    for (const auto& file : files_) {
        Json::Value position;
        position["device"] = Json::UInt64(file->status.st_dev);
        position["inode"] = Json::UInt64(file->status.st_ino);
        position["offset"] = Json::Int64(file->done);
        position["head"] = file->Head(file->done);
        positions.append(position);
    }
    return positions;
}

void Spool::Resume(const Json::Value& positions) {
    positions_ = Json::Value(Json::arrayValue);
    for (const Json::Value& position : positions) {
        if (position.isObject()) {
            positions_.append(position);
        }
    }
}

}  // namespace Fleet
