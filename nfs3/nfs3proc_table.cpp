// SPDX-License-Identifier: Apache-2.0
//
// The table of the NFS version 3 procedures, and NULL. All that is known of a procedure stands in
// its row; nothing else goes by procedure numbers.
#include <iterator>

#include "nfs3/nfs3proc.h"
#include "nfs3/nfs3xdr.h"

bool_t Handle_NULL3(CallInfo3*) {
    return TRUE;
}

// ROW(number, NAME, handler, release, replyBytes) for each procedure after NULL, in the order of
// RFC 1813. The share getter, the codec and the name text follow from NAME.
#define NFS3_ROWS(ROW)                                                 \
    ROW(1, GETATTR3, Handle_GETATTR3, nullptr, 96)                     \
    ROW(2, SETATTR3, Handle_SETATTR3, nullptr, 136)                    \
    ROW(3, LOOKUP3, Handle_LOOKUP3, nullptr, 272)                      \
    ROW(4, ACCESS3, Handle_ACCESS3, nullptr, 112)                      \
    ROW(5, READLINK3, Handle_READLINK3, Free_READLINK3, 112)           \
    ROW(6, READ3, Handle_READ3, Free_READ3, 120)                       \
    ROW(7, WRITE3, Handle_WRITE3, Free_WRITE3, 152)                    \
    ROW(8, CREATE3, Handle_CREATE3, nullptr, 304)                      \
    ROW(9, MKDIR3, Handle_MKDIR3, nullptr, 304)                        \
    ROW(10, SYMLINK3, Handle_SYMLINK3, Free_SYMLINK3, 304)             \
    ROW(11, MKNOD3, Handle_MKNOD3, nullptr, 304)                       \
    ROW(12, REMOVE3, Handle_REMOVE3, nullptr, 136)                     \
    ROW(13, RMDIR3, Handle_RMDIR3, nullptr, 136)                       \
    ROW(14, RENAME3, Handle_RENAME3, nullptr, 264)                     \
    ROW(15, LINK3, Handle_LINK3, nullptr, 232)                         \
    ROW(16, READDIR3, Handle_READDIR3, Free_READDIR3, 136)             \
    ROW(17, READDIRPLUS3, Handle_READDIRPLUS3, Free_READDIRPLUS3, 136) \
    ROW(18, FSSTAT3, Handle_FSSTAT3, nullptr, 160)                     \
    ROW(19, FSINFO3, Handle_FSINFO3, nullptr, 160)                     \
    ROW(20, PATHCONF3, Handle_PATHCONF3, nullptr, 128)                 \
    ROW(21, COMMIT3, Handle_COMMIT3, nullptr, 144)

// The library's routine type has a variable argument list, which ours do not: hence the cast, by
// way of a type that compilers take as "any function".
#define CODEC(routine) reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(routine))
#define TABLE_ROW(number, NAME, handler, release, replyBytes)                             \
    {handler, GetExport_##NAME, CODEC(xdr_##NAME##args), CODEC(xdr_##NAME##res), release, \
     #NAME,   replyBytes},

const ProcedureRow Nfsv3Handlers[kNfs3ProcedureCount] = {
    {Handle_NULL3, nullptr, CODEC(xdr_void), CODEC(xdr_void), nullptr, "NULL3", 0},
    NFS3_ROWS(TABLE_ROW)};

#define ROW_NUMBER(number, NAME, handler, release, replyBytes) number,

// Row i is procedure i.
static_assert([] {
    constexpr int numbers[] = {0, NFS3_ROWS(ROW_NUMBER)};
    if (std::size(numbers) != kNfs3ProcedureCount) return false;
    for (int row = 0; row < kNfs3ProcedureCount; ++row)
        if (numbers[row] != row) return false;
    return true;
}());
