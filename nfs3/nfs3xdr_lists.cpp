// SPDX-License-Identifier: Apache-2.0
//
// The codec of READDIR's and READDIRPLUS's lists of entries. A page can hold tens of thousands of
// entries, so each is encoded in one piece of the stream's buffer, and no routine calls itself.
#include <cstdlib>
#include <cstring>

#include "nfs3/nfs3xdr.h"
#include "nfs3/nfs3xdr_words.h"

using oxel::xdr::CodeResult;
using oxel::xdr::CodeString;
using oxel::xdr::HandleBytes;
using oxel::xdr::PutPadded;
using oxel::xdr::PutWords;

namespace {

constexpr uint32_t kNoPiece = 0;

// The bytes of an entry on the wire, with the flag before it; kNoPiece when it cannot be encoded.
uint32_t EntryBytes(const entry3&, size_t nameBytes) {
    return 4 + 8 + GetXdrStringLength(static_cast<uint32_t>(nameBytes)) + 8;
}

uint32_t EntryBytes(const entryplus3& entry, size_t nameBytes) {
    uint32_t bytes = 4 + 8 + GetXdrStringLength(static_cast<uint32_t>(nameBytes)) + 8 + 4 + 4;
    if (entry.name_attributes.attributes_follow) bytes += oxel::xdr::BytesOf<fattr3>();
    if (entry.name_handle.handle_follows) {
        const uint32_t handleBytes = HandleBytes(entry.name_handle.handle);
        if (handleBytes == 0) return kNoPiece;
        bytes += handleBytes;
    }
    return bytes;
}

template <typename Entry>
PutWords PutCommon(int32_t* words, const Entry& entry, size_t nameBytes) {
    PutWords io{words};
    io.U32(uint32_t{TRUE});  // an entry follows
    io.U64(entry.fileid);
    io.U32(static_cast<uint32_t>(nameBytes));
    io.at = PutPadded(io.at, entry.name, static_cast<uint32_t>(nameBytes));
    io.U64(entry.cookie);
    return io;
}

void PutEntry(int32_t* words, entry3& entry, size_t nameBytes) {
    PutCommon(words, entry, nameBytes);
}

void PutEntry(int32_t* words, entryplus3& entry, size_t nameBytes) {
    PutWords io = PutCommon(words, entry, nameBytes);
    io.Bool(entry.name_attributes.attributes_follow);
    if (entry.name_attributes.attributes_follow)
        oxel::xdr::Words(io, entry.name_attributes.attributes);
    io.Bool(entry.name_handle.handle_follows);
    if (entry.name_handle.handle_follows) oxel::xdr::PutHandle(io.at, entry.name_handle.handle);
}

// False when the stream's buffer has no room for the whole entry in one piece.
template <typename Entry>
bool EncodedInOnePiece(XDR* xdrs, Entry& entry) {
    if (entry.name == nullptr) return false;
    const size_t nameBytes = strlen(entry.name);
    if (nameBytes > kXdrStringBytesMax) return false;
    const uint32_t bytes = EntryBytes(entry, nameBytes);
    if (bytes == kNoPiece) return false;
    int32_t* words = XDR_INLINE(xdrs, bytes);
    if (words == nullptr) return false;
    PutEntry(words, entry, nameBytes);
    return true;
}

// An entry without the link behind it.
bool_t CodeFields(XDR* xdrs, entry3* entry) {
    return xdr_u_int64_t(xdrs, &entry->fileid) && CodeString(xdrs, &entry->name) &&
           xdr_u_int64_t(xdrs, &entry->cookie);
}

bool_t CodeFields(XDR* xdrs, entryplus3* entry) {
    return xdr_u_int64_t(xdrs, &entry->fileid) && CodeString(xdrs, &entry->name) &&
           xdr_u_int64_t(xdrs, &entry->cookie) && xdr_post_op_attr(xdrs, &entry->name_attributes) &&
           xdr_post_op_fh3(xdrs, &entry->name_handle);
}

template <typename Link>
bool_t EncodeList(XDR* xdrs, const Link* link) {
    for (; link->present && link->entry != nullptr; link = &link->entry->next) {
        if (EncodedInOnePiece(xdrs, *link->entry)) continue;
        bool_t present = TRUE;
        if (!xdr_bool(xdrs, &present) || !CodeFields(xdrs, link->entry)) return FALSE;
    }
    bool_t present = FALSE;
    return xdr_bool(xdrs, &present);
}

// Nodes are zeroed before they are linked in: a list that ends in a failure can be freed.
template <typename Link>
bool_t DecodeList(XDR* xdrs, Link* link) {
    for (;;) {
        link->entry = nullptr;
        if (!xdr_bool(xdrs, &link->present)) return FALSE;
        if (!link->present) return TRUE;
        link->entry = static_cast<decltype(link->entry)>(calloc(1, sizeof(*link->entry)));
        if (link->entry == nullptr || !CodeFields(xdrs, link->entry)) return FALSE;
        link = &link->entry->next;
    }
}

// Decoded nodes only: a handler's own are released by the procedure's Free_ function.
template <typename Link>
void FreeList(Link* link) {
    auto* entry = link->entry;
    link->present = FALSE;
    link->entry = nullptr;
    while (entry != nullptr) {
        auto* next = entry->next.entry;
        free(entry->name);
        free(entry);
        entry = next;
    }
}

template <typename Link>
bool_t CodeList(XDR* xdrs, Link* link) {
    switch (xdrs->x_op) {
        case XDR_ENCODE:
            return EncodeList(xdrs, link);
        case XDR_DECODE:
            return DecodeList(xdrs, link);
        case XDR_FREE:
            FreeList(link);
            return TRUE;
    }
    return FALSE;
}

}  // namespace

bool_t xdr_dirlist3(XDR* xdrs, dirlist3* link) {
    return CodeList(xdrs, link);
}

bool_t xdr_entry3(XDR* xdrs, entry3* entry) {
    return CodeFields(xdrs, entry) && xdr_dirlist3(xdrs, &entry->next);
}

bool_t xdr_dirlistplus3(XDR* xdrs, dirlistplus3* link) {
    return CodeList(xdrs, link);
}

bool_t xdr_entryplus3(XDR* xdrs, entryplus3* entry) {
    return CodeFields(xdrs, entry) && xdr_dirlistplus3(xdrs, &entry->next);
}

bool_t xdr_READDIR3resok(XDR* xdrs, READDIR3resok* value) {
    return xdr_post_op_attr(xdrs, &value->dir_attributes) &&
           xdr_u_int64_t(xdrs, &value->cookieverf) && xdr_dirlist3(xdrs, &value->reply) &&
           xdr_bool(xdrs, &value->eof);
}

bool_t xdr_READDIR3resfail(XDR* xdrs, READDIR3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->dir_attributes);
}

bool_t xdr_READDIR3res(XDR* xdrs, READDIR3res* value) {
    return CodeResult(xdrs, value, xdr_READDIR3resok, xdr_READDIR3resfail);
}

bool_t xdr_READDIRPLUS3resok(XDR* xdrs, READDIRPLUS3resok* value) {
    return xdr_post_op_attr(xdrs, &value->dir_attributes) &&
           xdr_u_int64_t(xdrs, &value->cookieverf) && xdr_dirlistplus3(xdrs, &value->reply) &&
           xdr_bool(xdrs, &value->eof);
}

bool_t xdr_READDIRPLUS3resfail(XDR* xdrs, READDIRPLUS3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->dir_attributes);
}

bool_t xdr_READDIRPLUS3res(XDR* xdrs, READDIRPLUS3res* value) {
    return CodeResult(xdrs, value, xdr_READDIRPLUS3resok, xdr_READDIRPLUS3resfail);
}
