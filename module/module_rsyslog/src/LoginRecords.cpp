#include "module/module_rsyslog/src/LoginRecords.h"

#include <algorithm>
#include <boost/functional/hash.hpp>
#include <functional>
#include <limits>
#include <utility>

namespace Engine {

namespace {

// How many walks over the whole list, or as much in shorter ones, come before an index of it, which
// costs about as much as ten. A pass with little news takes few.
constexpr std::size_t kMaxWalks = 64;
// Later than any record, whose times have 32 bits.
constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

}  // namespace

KnownRecords::KnownRecords(std::vector<utmp_info>& records)
    : records_(records), index_(0, Hash{records}, Equal{records}) {}

bool KnownRecords::Add(const utmp_info& record) {
    // A file that only grew gives the known records in the order they were kept.
    if (next_ < records_.size() && records_[next_] == record) {
        ++next_;
        return false;
    }
    const std::size_t at = Find(record);
    const bool fresh = at == records_.size();
    if (fresh) {
        records_.push_back(record);
    }
    next_ = std::max(next_, at + 1);
    return fresh;
}

std::size_t KnownRecords::Find(const utmp_info& record) {
    // New records come in the order of time as a rule; clocks set back make the exceptions. Without
    // this each new record of a first pass, or of a file begun anew, would be looked for in all.
    std::size_t from = 0;
    if (next_ == records_.size()) {
        FindLatest();
        if (records_.empty() || record.login_time > latest_) {
            return records_.size();
        }
        from = record.login_time == latest_ ? first_latest_ : 0;
    }
    return walked_ < kMaxWalks * records_.size() ? Walk(record, from) : LookUp(record);
}

void KnownRecords::FindLatest() {
    for (; counted_ < records_.size(); ++counted_) {
        if (counted_ == 0 || records_[counted_].login_time > latest_) {
            latest_ = records_[counted_].login_time;
            first_latest_ = counted_;
        }
    }
}

// Backwards: at the end are the original of a record written twice, and the beginning of a file
// that was rotated.
std::size_t KnownRecords::Walk(const utmp_info& record, std::size_t from) {
    const auto end = records_.rend() - static_cast<std::ptrdiff_t>(from);
    const auto found = std::find(records_.rbegin(), end, record);
    walked_ += static_cast<std::size_t>(found - records_.rbegin());
    return found == end ? records_.size() : static_cast<std::size_t>(records_.rend() - found) - 1;
}

std::size_t KnownRecords::LookUp(const utmp_info& record) {
    while (indexed_ < records_.size()) {
        index_.insert(indexed_++);
    }
    // The set holds places in the list, so what is looked up has to be there too.
    records_.push_back(record);
    const auto found = index_.find(indexed_);
    const std::size_t at = found == index_.end() ? indexed_ : *found;
    records_.pop_back();
    return at;
}

std::size_t KnownRecords::Hash::operator()(std::size_t at) const {
    const utmp_info& record = records[at];
    std::size_t seed = 0;
    boost::hash_combine(seed, record.login_time);
    boost::hash_combine(seed, record.session);
    boost::hash_combine(seed, record.pid);
    boost::hash_combine(seed, record.type);
    for (const std::string* text : {&record.line, &record.user, &record.host}) {
        boost::hash_combine(seed, std::hash<std::string>()(*text));
    }
    return seed;
}

OpenLogins::OpenLogins(const std::vector<utmp_info>& records, std::vector<std::size_t> places)
    : records_(records), places_(std::move(places)) {
    std::stable_sort(places_.begin(), places_.end(), [this](std::size_t a, std::size_t b) {
        return records_[a].line < records_[b].line;
    });
    while (leaves_ < places_.size()) {
        leaves_ *= 2;
    }
    earliest_.assign(2 * leaves_, kNever);
    for (std::size_t slot = 0; slot < places_.size(); ++slot) {
        earliest_[leaves_ + slot] = records_[places_[slot]].login_time;
    }
    for (std::size_t node = leaves_ - 1; node > 0; --node) {
        Update(node);
    }
}

std::optional<std::size_t> OpenLogins::FirstOn(const std::string& line, std::int64_t time) const {
    const auto begin = std::lower_bound(
        places_.begin(), places_.end(), line,
        [this](std::size_t place, const std::string& text) { return records_[place].line < text; });
    const std::size_t slot = FirstFrom(static_cast<std::size_t>(begin - places_.begin()), time);
    if (slot == places_.size() || records_[places_[slot]].line != line) {
        return std::nullopt;
    }
    return slot;
}

std::vector<std::size_t> OpenLogins::All(std::int64_t time) const {
    std::vector<std::size_t> slots;
    for (std::size_t slot = FirstFrom(0, time); slot < places_.size();
         slot = FirstFrom(slot + 1, time)) {
        slots.push_back(slot);
    }
    std::sort(slots.begin(), slots.end(),
              [this](std::size_t a, std::size_t b) { return places_[a] < places_[b]; });
    return slots;
}

void OpenLogins::Remove(std::size_t slot) {
    std::size_t node = leaves_ + slot;
    earliest_[node] = kNever;
    while (node > 1) {
        node /= 2;
        Update(node);
    }
}

void OpenLogins::Update(std::size_t node) {
    earliest_[node] = std::min(earliest_[2 * node], earliest_[2 * node + 1]);
}

std::size_t OpenLogins::FirstFrom(std::size_t slot, std::int64_t time) const {
    if (slot >= places_.size()) {
        return places_.size();
    }
    std::size_t node = leaves_ + slot;
    while (earliest_[node] > time) {
        while (node % 2 == 1) {  // nothing to the right of it below its parent
            node /= 2;
        }
        if (node == 0) {
            return places_.size();
        }
        ++node;
    }
    while (node < leaves_) {
        node *= 2;
        node += earliest_[node] > time ? 1 : 0;
    }
    return node - leaves_;
}

}  // namespace Engine
