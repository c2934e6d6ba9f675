// SPDX-License-Identifier: Apache-2.0
//
// The MOUNT protocol's procedures, between the protocol's records and the registry of shares.
#include "mount3/mount3proc.h"

#include <rpc/auth.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "backend/Export.h"
#include "backend/ExportCache.h"
#include "backend/FSM.h"
#include "backend/FSMCache.h"
#include "backend/refusal_log.h"
#include "base/log.h"
#include "mount3/mount3xdr.h"
#include "nfs3/nfs3proc.h"

// The library declares it without arguments.
static const auto kXdrVoid = reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_void));

// Versions 1 to 3 share the table; the version gate stands before it, in the dispatcher.
const ProcedureRow Mountv3Handlers[kMount3ProcedureCount] = {
    {Handle_NULL3, nullptr, kXdrVoid, kXdrVoid, nullptr, "NULL3", 0},
    {Handle_MNT3, nullptr, reinterpret_cast<xdrproc_t>(xdr_MNT3args),
     reinterpret_cast<xdrproc_t>(xdr_MNT3res), Free_MNT3, "MNT3", 0},
    {Handle_DUMP3, nullptr, reinterpret_cast<xdrproc_t>(xdr_DUMP3args),
     reinterpret_cast<xdrproc_t>(xdr_DUMP3res), Free_DUMP3, "DUMP3", 0},
    {Handle_UMNT3, nullptr, reinterpret_cast<xdrproc_t>(xdr_UMNT3args),
     reinterpret_cast<xdrproc_t>(xdr_UMNT3res), Free_UMNT3, "UMNT3", 0},
    {Handle_UMNTALL3, nullptr, reinterpret_cast<xdrproc_t>(xdr_UMNTALL3args),
     reinterpret_cast<xdrproc_t>(xdr_UMNTALL3res), Free_UMNTALL3, "UMNTALL3", 0},
    {Handle_EXPORT3, nullptr, reinterpret_cast<xdrproc_t>(xdr_EXPORT3args),
     reinterpret_cast<xdrproc_t>(xdr_EXPORT3res), Free_EXPORT3, "EXPORT3", 0},
};

// Only a share's own path can be mounted, in whatever spelling of its slashes.
static bool FindRequestedExport(const char* requested, std::string& stored, ExportPtr& share) {
    share.reset();  // of the call before
    ReverseNormalizeExportPath(requested, stored);
    return gAllExports.FindExport(stored, share) && share != nullptr;
}

bool_t Handle_MNT3(CallInfo3* call) {
    MNT3res& result = call->result.mnt;
    memset(&result, 0, sizeof(result));
    const char* requested = call->arguments().mnt.dirpath;
    OXEL_LOG(1, "Request to mount [%s].", requested);

    std::string stored;
    ExportPtr& share = call->exportPtr;
    if (!FindRequestedExport(requested, stored, share)) {
        result.fhs_status = MNT3ERR_NOENT;
        OXEL_LOG(1, "[%s] is not exported.", requested);
        oxel::LogRefusedPath(call->identity.clientAddress, requested);
        return TRUE;
    }
    const CLuIPAddr& client = call->identity.clientAddress;
    if (!share->IsClientAllowed(XOIPAddr(client), std::string())) {
        OXEL_LOG(-1, "Client [%s] is not authorized to mount share [%s].",
                 client.GetAddressString().c_str(), requested);
        result.fhs_status = MNT3ERR_ACCES;
        return TRUE;
    }
    FSMPtr module;
    if (!FSMCache::GetFSM(share->GetFSMType(), module) || module == nullptr) {
        // The status stays MNT3_OK, and the reply has an empty handle and no flavours: the number
        // meant as one (NFS3ERR_BADHANDLE) only says that a reply is to be sent. Clients refuse
        // such a handle.
        OXEL_LOG(-1, "No File System Module for this export. [%s].", requested);
        return 10001;
    }

    result.fhs_status = MNT3_OK;
    MNT3res_ok& mounted = result.mountinfo;
    (void)share->AddMountPoint(client, &mounted.fhandle);  // the handle tells what came of it
    const std::string handle = module->GetHandleString(mounted.fhandle);
    OXEL_LOG(4, "fh [%s]", handle.c_str());

    // Two flavours, of which AUTH_UNIX comes second; the first is zero, which is AUTH_NONE.
    std::unique_ptr<uint32_t[]> flavors(new uint32_t[2]());
    flavors[1] = AUTH_UNIX;

    OXEL_LOG(1, "Successfully added mount point [%s : %u].", requested, mounted.fhandle.shareId);
    OXEL_LOG(1, "FH for Share is [%s].", handle.c_str());
    OXEL_LOG(1, "FSMType = [%u].", mounted.fhandle.fsmType);
    share->SetLastAccessTime(static_cast<long>(time(nullptr)));
    (void)gAllExports.SaveToDisk();  // says so in the log itself when it fails; the mount holds

    mounted.auth_flavors.auth_flavors_len = 2;
    mounted.auth_flavors.auth_flavors_val = flavors.release();  // Free_MNT3's from here
    return TRUE;
}

bool_t Free_MNT3(CallInfo3* call) {
    auto& flavors = call->result.mnt.mountinfo.auth_flavors;
    delete[] flavors.auth_flavors_val;
    flavors.auth_flavors_val = nullptr;
    flavors.auth_flavors_len = 0;
    return TRUE;
}

// The daemon keeps no table of who has mounted what, so there is nothing to list.
bool_t Handle_DUMP3(CallInfo3* call) {
    memset(&call->result.dump, 0, sizeof(call->result.dump));
    return TRUE;
}

bool_t Free_DUMP3(CallInfo3*) {
    return TRUE;
}

// Nothing is removed, there is no table of mounts; what the registry knows is saved.
bool_t Handle_UMNT3(CallInfo3* call) {
    const std::string client = call->identity.clientAddress.GetAddressString();
    const char* requested = call->arguments().umnt.dirpath;
    OXEL_LOG(1, "Request to unmount [%s].", requested);
    std::string stored;
    if (!FindRequestedExport(requested, stored, call->exportPtr)) {
        OXEL_LOG(-1, "Export [%s] not found.", stored.c_str());
        return TRUE;
    }
    OXEL_LOG(1, "Client [%s] unmounted [%s]", client.c_str(), stored.c_str());
    (void)gAllExports.SaveToDisk();  // says so in the log itself when it fails
    return TRUE;
}

bool_t Free_UMNT3(CallInfo3*) {
    return TRUE;
}

bool_t Handle_UMNTALL3(CallInfo3*) {
    return TRUE;
}

bool_t Free_UMNTALL3(CallInfo3*) {
    return TRUE;
}

static void FreeExportList(exportlist3& head) {
    exportnode3* node = head.present ? head.node : nullptr;
    head = exportlist3{};
    while (node != nullptr) {
        exportnode3* next = node->next.present ? node->next.node : nullptr;
        free(node->ex_dir);
        delete node;
        node = next;
    }
}

bool_t Handle_EXPORT3(CallInfo3* call) {
    EXPORT3res& result = call->result.exports;
    memset(&result, 0, sizeof(result));
    OXEL_LOG(1, "Request for list of exported folders..");
    ExportCache::ExportMap shares(11);
    gAllExports.GetExportsNotForFSM(kUnlistedModuleType, shares);

    try {
        exportlist3* link = &result.exports;
        for (const auto& [shareId, share] : shares) {
            link->node = new exportnode3{};  // no groups: who may mount is not told
            link->present = TRUE;
            link->node->ex_dir = strdup(share->GetPath().c_str());
            if (link->node->ex_dir == nullptr) throw std::bad_alloc();
            link = &link->node->next;
        }
    } catch (...) {
        FreeExportList(result.exports);  // nobody releases the result of a call that threw
        throw;
    }
    return TRUE;
}

bool_t Free_EXPORT3(CallInfo3* call) {
    FreeExportList(call->result.exports.exports);
    return TRUE;
}
