#pragma once

#include <sys/stat.h>

#include <string>

#include "sdk/Descriptor.h"

namespace SDK {

// The file that is to take the place of `target`, a name in the directory `dir`. Until then it lies
// beside it as ".TARGET.watchpost-new" and is locked (flock), and only who has the lock removes it:
// a writer that was killed leaves one such file, unlocked, which the next one removes. Otherwise it
// goes with this object unless it took its place. Results are 0 or an errno value.
class Replacement {
public:
    Replacement(int dir, const std::string& target);
    ~Replacement();
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    // Creates the file, to be written through Get(). Waits half a second for another writer of the
    // target, then EBUSY. EEXIST when what lies at its name cannot be left by a writer.
    int Create(mode_t mode);

    // After the content: gives the file the owner, the access list and the permissions of `from`,
    // not wider ones at any moment. The file to be replaced hands down all its attributes and its
    // set-id bits as well; of another one the owner is taken over where allowed.
    int TakeOver(int from, bool is_replaced);

    // The content is on disk before it takes its place; the directory may not be.
    int Commit();

    int Get() const { return file_.Get(); }

private:
    int TryCreate(mode_t mode);
    int RemoveLeftover();
    int Lock(int file) const;

    const int dir_;
    const std::string target_;
    const std::string name_;
    Descriptor file_;
    bool committed_ = false;
};

// A path that leads to the file of an open descriptor, also of one that only names it (O_PATH).
std::string PathOf(int descriptor);

}  // namespace SDK
