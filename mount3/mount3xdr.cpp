// SPDX-License-Identifier: Apache-2.0
//
// The codec of the MOUNT protocol. Its three lists have one form, a flag and the node, again and
// again; what differs is the node.
#include "mount3/mount3xdr.h"

#include <cstdlib>
#include <type_traits>

#include "nfs3/nfs3xdr.h"

using oxel::xdr::CodeString;

namespace {

// ---- What the list code needs to know of each node ----

mntentry3*& Node(mntlist3& link) {
    return link.entry;
}

groupnode3*& Node(grouplist3& link) {
    return link.group;
}

exportnode3*& Node(exportlist3& link) {
    return link.node;
}

// A node without the link behind it.
bool_t CodeFields(XDR* xdrs, mntentry3* entry) {
    return CodeString(xdrs, &entry->ml_hostname) && CodeString(xdrs, &entry->ml_directory);
}

bool_t CodeFields(XDR* xdrs, groupnode3* group) {
    return CodeString(xdrs, &group->gr_name);
}

bool_t CodeFields(XDR* xdrs, exportnode3* node) {
    return CodeString(xdrs, &node->ex_dir) && xdr_grouplist3(xdrs, &node->ex_groups);
}

// ---- Lists ----

template <typename Link>
bool_t EncodeList(XDR* xdrs, Link* link) {
    bool_t present = TRUE;
    for (; link->present && Node(*link) != nullptr; link = &Node(*link)->next)
        if (!xdr_bool(xdrs, &present) || !CodeFields(xdrs, Node(*link))) return FALSE;
    present = FALSE;
    return xdr_bool(xdrs, &present);
}

// Nodes are zeroed before they are linked in: a list that ends in a failure can be freed.
template <typename Link>
bool_t DecodeList(XDR* xdrs, Link* link) {
    for (;;) {
        auto*& node = Node(*link);
        node = nullptr;
        if (!xdr_bool(xdrs, &link->present)) return FALSE;
        if (!link->present) return TRUE;
        node = static_cast<std::remove_reference_t<decltype(node)>>(calloc(1, sizeof(*node)));
        if (node == nullptr || !CodeFields(xdrs, node)) return FALSE;
        link = &node->next;
    }
}

template <typename Link>
bool_t FreeList(XDR* xdrs, Link* link) {
    auto* node = Node(*link);
    link->present = FALSE;
    Node(*link) = nullptr;
    while (node != nullptr) {
        auto* next = Node(node->next);
        CodeFields(xdrs, node);
        free(node);
        node = next;
    }
    return TRUE;
}

template <typename Link>
bool_t CodeList(XDR* xdrs, Link* link) {
    switch (xdrs->x_op) {
        case XDR_ENCODE:
            return EncodeList(xdrs, link);
        case XDR_DECODE:
            return DecodeList(xdrs, link);
        case XDR_FREE:
            return FreeList(xdrs, link);
    }
    return FALSE;
}

}  // namespace

bool_t xdr_MNT3args(XDR* xdrs, MNT3args* value) {
    return CodeString(xdrs, &value->dirpath);
}

bool_t xdr_MNT3res_ok(XDR* xdrs, MNT3res_ok* value) {
    if (xdrs->x_op == XDR_FREE) return TRUE;
    if (!xdr_nfs_fh3(xdrs, &value->fhandle)) return FALSE;
    auto& flavors = value->auth_flavors;
    const uint32_t room = flavors.auth_flavors_val != nullptr ? flavors.auth_flavors_len : 0;
    u_int count = flavors.auth_flavors_len;
    if (!xdr_u_int(xdrs, &count) || count > room) return FALSE;
    for (u_int i = 0; i < count; ++i)
        if (!xdr_u_int(xdrs, &flavors.auth_flavors_val[i])) return FALSE;
    flavors.auth_flavors_len = count;
    return TRUE;
}

bool_t xdr_MNT3res(XDR* xdrs, MNT3res* value) {
    int status = value->fhs_status;
    if (!xdr_int(xdrs, &status)) return FALSE;
    value->fhs_status = static_cast<mountstat3>(status);
    return value->fhs_status == MNT3_OK ? xdr_MNT3res_ok(xdrs, &value->mountinfo) : TRUE;
}

bool_t xdr_DUMP3args(XDR*, void*) {
    return TRUE;
}

bool_t xdr_mntlist3(XDR* xdrs, mntlist3* link) {
    return CodeList(xdrs, link);
}

bool_t xdr_mntentry3(XDR* xdrs, mntentry3* entry) {
    return CodeFields(xdrs, entry) && xdr_mntlist3(xdrs, &entry->next);
}

bool_t xdr_DUMP3res(XDR* xdrs, DUMP3res* value) {
    return xdr_mntlist3(xdrs, &value->mountlist);
}

bool_t xdr_UMNT3args(XDR* xdrs, UMNT3args* value) {
    return CodeString(xdrs, &value->dirpath);
}

bool_t xdr_UMNT3res(XDR*, void*) {
    return TRUE;
}

bool_t xdr_UMNTALL3args(XDR*, void*) {
    return TRUE;
}

bool_t xdr_UMNTALL3res(XDR*, void*) {
    return TRUE;
}

bool_t xdr_EXPORT3args(XDR*, void*) {
    return TRUE;
}

bool_t xdr_grouplist3(XDR* xdrs, grouplist3* link) {
    return CodeList(xdrs, link);
}

bool_t xdr_groupnode3(XDR* xdrs, groupnode3* group) {
    return CodeFields(xdrs, group) && xdr_grouplist3(xdrs, &group->next);
}

bool_t xdr_exportlist3(XDR* xdrs, exportlist3* link) {
    return CodeList(xdrs, link);
}

bool_t xdr_exportnode3(XDR* xdrs, exportnode3* node) {
    return CodeFields(xdrs, node) && xdr_exportlist3(xdrs, &node->next);
}

bool_t xdr_EXPORT3res(XDR* xdrs, EXPORT3res* value) {
    return xdr_exportlist3(xdrs, &value->exports);
}
