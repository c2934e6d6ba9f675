// SPDX-License-Identifier: Apache-2.0
//
// The per-thread memory of one call.
#include "modules/local/call_state.h"

#include "modules/local/object.h"
#include "modules/local/syscalls.h"

namespace oxel::local {

CallState& CallState::Get() {
    static thread_local CallState instance;
    return instance;
}

void CallState::Fill(Slot* slot, const boost::shared_ptr<LocalObject>& object,
                     const struct stat& st) {
    const uint64_t node = object->Node().Serial();
    for (Slot& other : slots_) {
        if (other.node == node) other = Slot{};
    }
    slot->node = node;
    slot->object = object;
    slot->st = st;
    slot->fresh = slot->current = true;
    slot->made = false;
}

void CallState::Resolved(const boost::shared_ptr<LocalObject>& object, const struct stat& st) {
    if (!resolving_) {
        for (Slot& slot : slots_) {
            if (slot.node != 0) slot = Slot{};
        }
        resolving_ = true;
        changed_ = false;
        next_ = 0;
    }
    Fill(&slots_[next_], object, st);
    next_ = (next_ + 1) % kResolved;
}

void CallState::Found(const boost::shared_ptr<LocalObject>& object, const struct stat& st) {
    resolving_ = false;
    Fill(&slots_[kResolved], object, st);
}

void CallState::Made(const boost::shared_ptr<LocalObject>& object, const struct stat& st) {
    Found(object, st);
    slots_[kResolved].made = true;
}

bool CallState::WasNamed(const FileNode& node) const {
    return slots_[kResolved].node == node.Serial();
}

bool CallState::GroupWhenMade(const FileNode& node, gid_t* group) const {
    if (!WasNamed(node) || !slots_[kResolved].made) return false;
    *group = slots_[kResolved].st.st_gid;
    return true;
}

bool CallState::StatWhenMade(const FileNode& node, struct stat* st) const {
    const Slot& slot = slots_[kResolved];
    if (!WasNamed(node) || !slot.made || !slot.current) return false;
    *st = slot.st;
    return true;
}

bool CallState::TakeStat(const FileNode& node, struct stat* out) {
    resolving_ = false;
    for (Slot& slot : slots_) {
        if (slot.node != node.Serial() || !slot.fresh) continue;
        slot.fresh = false;
        *out = slot.st;
        return true;
    }
    return false;
}

void CallState::ForgetStats() {
    for (Slot& slot : slots_) slot.fresh = slot.current = false;
    changed_ = true;
}

void CallState::Reread(FileNode& node, const struct stat& st) {
    if (!changed_) return;
    for (Slot& slot : slots_) {
        if (slot.node != node.Serial()) continue;
        node.OwnChange(ChangeTime(slot.st), ChangeTime(st));
        slot.st = st;
        return;
    }
}

boost::shared_ptr<LocalObject> CallState::ByPath(const ShareRoot& share, const std::string& path) {
    for (int i = kSlots - 1; i >= 0; --i) {
        if (slots_[i].node == 0) continue;
        boost::shared_ptr<LocalObject> object = slots_[i].object.lock();
        if (object && &object->Share() == &share && object->GetPath() == path) return object;
    }
    return nullptr;
}

boost::shared_ptr<LocalObject> CallState::ByPath(const std::string& path) {
    for (const Slot& slot : slots_) {
        if (slot.node == 0) continue;
        boost::shared_ptr<LocalObject> object = slot.object.lock();
        if (object && object->GetPath() == path) return object;
    }
    return nullptr;
}

}  // namespace oxel::local
