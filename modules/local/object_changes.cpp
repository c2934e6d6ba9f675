// SPDX-License-Identifier: Apache-2.0
//
// Operations that make, remove and rename names, or write contents: not there yet.
#include "modules/local/object.h"

namespace oxel::local {
namespace {

template <typename Result>
Result NotYet(Result failure) {
    errno = ENOSYS;
    return failure;
}

}  // namespace

ssize_t LocalObject::Write(OxelCtxt*, int, const void*, uint64_t, uint32_t, stable_how) {
    return NotYet(-1);
}
int LocalObject::SyncFs(OxelCtxt*, int) {
    return NotYet(-1);
}
int LocalObject::Unlink(OxelCtxt*, const std::string&) {
    return NotYet(-1);
}
int LocalObject::RemoveDir(OxelCtxt*, const std::string&) {
    return NotYet(-1);
}
int LocalObject::Rename(OxelCtxt*, const std::string&, const std::string&) {
    return NotYet(-1);
}
int LocalObject::HardLink(OxelCtxt*, const std::string&, const std::string&) {
    return NotYet(-1);
}
int LocalObject::CreateSymlink(OxelCtxt*, const std::string&, const std::string&) {
    return NotYet(-1);
}
BkEndProcPtr LocalObject::CreateChild(OxelCtxt*, const std::string&, int, mode_t) {
    return NotYet(BkEndProcPtr());
}
BkEndProcPtr LocalObject::CreateChildDir(OxelCtxt*, const std::string&, mode_t) {
    return NotYet(BkEndProcPtr());
}

}  // namespace oxel::local
