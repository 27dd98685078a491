#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "module/module_rsyslog/src/RsyslogTask.h"

namespace Engine {

// Tells known records from new ones during one reading of the accounting file.
class KnownRecords {
public:
    // `records`, those known, must outlive this and is changed by it alone.
    explicit KnownRecords(std::vector<utmp_info>& records);

    // Appends `record` to the list and returns true, unless an equal one is in it.
    bool Add(const utmp_info& record);

private:
    struct Hash {
        const std::vector<utmp_info>& records;
        std::size_t operator()(std::size_t at) const;
    };
    struct Equal {
        const std::vector<utmp_info>& records;
        bool operator()(std::size_t a, std::size_t b) const { return records[a] == records[b]; }
    };

    // The place of the equal record, or the length of the list.
    std::size_t Find(const utmp_info& record);
    void FindLatest();
    std::size_t Walk(const utmp_info& record, std::size_t from);
    std::size_t LookUp(const utmp_info& record);

    std::vector<utmp_info>& records_;
    std::size_t next_ = 0;     // in the list, the record expected next
    std::size_t counted_ = 0;  // how many of the list the next two speak of
    std::int64_t latest_ = 0;
    std::size_t first_latest_ = 0;
    std::size_t walked_ = 0;   // records passed on walks
    std::size_t indexed_ = 0;  // how many of the list are in the index
    std::unordered_set<std::size_t, Hash, Equal> index_;
};

// The open logins of a list that keeps its length, with the ways to find those that end. A login is
// named by its slot.
class OpenLogins {
public:
    // `places`: of the open logins in `records`, ascending.
    OpenLogins(const std::vector<utmp_info>& records, std::vector<std::size_t> places);

    std::size_t Place(std::size_t slot) const { return places_[slot]; }

    // The first login of the list on `line` that began at `time` or before.
    std::optional<std::size_t> FirstOn(const std::string& line, std::int64_t time) const;

    // All that began at `time` or before, in the order of the list.
    std::vector<std::size_t> All(std::int64_t time) const;

    void Remove(std::size_t slot);

private:
    // The first slot from `slot` on with a login time up to `time`, or the number of slots.
    std::size_t FirstFrom(std::size_t slot, std::int64_t time) const;
    void Update(std::size_t node);

    const std::vector<utmp_info>& records_;
    std::vector<std::size_t>
        places_;  // of each slot in the list: by line, on a line as in the list
    // A binary tree of login times, its root at 1, the children of n at 2n and 2n + 1, the slots as
    // its leaves; an inner node has the earliest below it.
    std::size_t leaves_ = 1;
    std::vector<std::int64_t> earliest_;
};

}  // namespace Engine
