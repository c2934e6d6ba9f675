// SPDX-License-Identifier: Apache-2.0
//
// What a thread remembers of the call it is handling: attributes that were read to find an object,
// so that the handler's first question for them costs nothing, and which object a path belongs to.
#pragma once

#include <sys/stat.h>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <cstdint>
#include <string>

namespace oxel::local {

class FileNode;
class LocalObject;
class ShareRoot;

// One per thread. A handler resolves its handles first and then works on the objects, so the next
// resolution after other operations begins a new call and forgets the old one.
class CallState {
  public:
    static CallState& Get();

    // `object` was found by its handle, or by its name; *st is what it is now.
    void Resolved(const boost::shared_ptr<LocalObject>& object, const struct stat& st);
    void Found(const boost::shared_ptr<LocalObject>& object, const struct stat& st);
    // `object` was made by this call just now.
    void Made(const boost::shared_ptr<LocalObject>& object, const struct stat& st);
    // An operation other than a resolution begins.
    void OperationStarts() { resolving_ = false; }

    // The attributes that were read when the object was found, once. False when there are none.
    bool TakeStat(const FileNode& node, struct stat* out);
    // Something is about to be modified: attributes read so far may not be used any more.
    void ForgetStats();
    // Whether the running call came to the object by its name in a directory.
    bool WasNamed(const FileNode& node) const;
    // The group that the object was made with; false when the running call did not make it.
    bool GroupWhenMade(const FileNode& node, gid_t* group) const;
    // The attributes of an object have been read anew: changes of them that this call has made do
    // not put its path in doubt.
    void Reread(FileNode& node, const struct stat& st);
    // The inode number that the thread last read from a directory: which object the next name is
    // about, if that name is looked for. A guess that saves work and is never relied on.
    void Listed(uint64_t inode) { listed_ = inode; }
    uint64_t LastListed() const { return listed_; }
    // What the object was made like; false when the running call did not make it or has changed
    // something since.
    bool StatWhenMade(const FileNode& node, struct stat* st) const;
    // The object of the running call that has this path, or null.
    boost::shared_ptr<LocalObject> ByPath(const ShareRoot& share, const std::string& path);
    // The same, of whatever share.
    boost::shared_ptr<LocalObject> ByPath(const std::string& path);

  private:
    struct Slot {
        uint64_t node = 0;  // FileNode::Serial, 0 for none
        // Weak, so that an idle thread keeps no descriptor open.
        boost::weak_ptr<LocalObject> object;
        struct stat st;
        bool fresh = false;    // TakeStat may give `st`
        bool current = false;  // nothing has been modified since `st`
        bool made = false;
    };
    void Fill(Slot* slot, const boost::shared_ptr<LocalObject>& object, const struct stat& st);

    // Two objects by handle (RENAME's directories, LINK's file and directory), and the last one by
    // name.
    static constexpr int kResolved = 2, kSlots = 3;
    Slot slots_[kSlots];
    int next_ = 0;
    bool resolving_ = false;
    bool changed_ = false;  // something has been modified since the last resolution
    uint64_t listed_ = 0;
};

}  // namespace oxel::local
