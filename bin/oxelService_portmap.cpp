// SPDX-License-Identifier: Apache-2.0
//
// Registration with the local port mapper (rpcbind), by which clients find the services.
#include <rpc/rpc.h>
#include <rpc/rpcb_clnt.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "bin/oxelService.h"

static XoCriticalSection pmRegLock;

bool_t UnRegisterWithPortMapperOS(const RPCServiceArgs* args) {
    OXEL_LOG(1, "Will unregister Prog [%d] Version [%d]", static_cast<int>(args->program),
             static_cast<int>(args->version));
    if (rpcb_unset(args->program, args->version, nullptr)) return TRUE;
    OXEL_LOG(-1, "rpcb_unset() failed. Cannot unregister Prog [%d] Version [%d]",
             static_cast<int>(args->program), static_cast<int>(args->version));
    return FALSE;
}

bool UnRegisterWithPortMapper(const RPCServiceArgs* args) {
    if (UnRegisterWithPortMapperOS(args)) return true;
    OXEL_LOG(-1, "UnRegisterWithPortMapperOS() failed. Prog [%d] Version [%d]",
             static_cast<int>(args->program), static_cast<int>(args->version));
    return false;
}

bool_t RegisterWithPortMapperOS(const RPCServiceArgs* args) {
    OXEL_LOG(1, "Will register Prog [%d] Version [%d]", static_cast<int>(args->program),
             static_cast<int>(args->version));
    netconfig* entry = getnetconfigent("tcp");
    if (entry == nullptr) {
        OXEL_LOG(-1, "getnetconfigent() failed. Cannot unregister Prog [%d] Version [%d]",
                 static_cast<int>(args->program), static_cast<int>(args->version));
        return FALSE;
    }
    sockaddr_storage address{};
    static_assert(sizeof address == 128);
    socklen_t length = sizeof address;
    OXEL_LOG(4, "sock [%d]", args->socket);
    bool_t registered = FALSE;
    if (getsockname(args->socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        OXEL_LOG(-1, "getsockname failed. Cannot register with port mapper. Err [%s]",
                 strerror(errno));
    } else {
        OXEL_LOG(4, "addr_len [%d]", static_cast<int>(length));
        netbuf where{};
        where.maxlen = sizeof address;
        where.len = length;
        where.buf = &address;
        registered = rpcb_set(args->program, args->version, entry, &where);
    }
    freenetconfigent(entry);
    return registered;
}

bool RegisterWithPortMapper(const RPCServiceArgs* args) {
    if (RegisterWithPortMapperOS(args)) return true;
    OXEL_LOG(-1, "pmap_set() failed. Prog [%d] Version [%d] [TCP] port [%hd]",
             static_cast<int>(args->program), static_cast<int>(args->version),
             static_cast<short>(args->port));
    return false;
}

void RegisterAllServicesWithPortMapper() {
    XoCriticalSectionGuard lock(pmRegLock);
    if (OxelServiceGlobals::portMapperRegistered) return;
    OXEL_LOG(1, "Will register all [%d] services with port mapper.",
             static_cast<int>(gAllServiceParams.size()));
    for (const RPCServiceArgs& service : gAllServiceParams) {
        UnRegisterWithPortMapper(&service);
        RegisterWithPortMapper(&service);
    }
    OxelServiceGlobals::SetPortMapperRegistered(true);
}
