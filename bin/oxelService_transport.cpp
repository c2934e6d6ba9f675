// SPDX-License-Identifier: Apache-2.0
//
// Copies of an accepted connection's transport.
#include "bin/oxelService_transport.h"

#include <rpc/svc_mt.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "base/unique_fd.h"
#include "bin/oxelService_connection.h"

namespace {

// The library rewrites its extension record with every call it reads and frees it with the
// connection, so a copy has its own, right behind the transport.
struct TransportCopy {
    SVCXPRT transport;
    SVCXPRT_EXT extension;
};

}  // namespace

// What the copy takes from the call that was read last: everything that the receive thread rewrites
// with the next one.
static void CopyCall(const SVCXPRT* source, SVCXPRT* copy) {
    copy->xp_fd = source->xp_fd;
    copy->xp_port = source->xp_port;
    copy->xp_ops = source->xp_ops;
    copy->xp_addrlen = source->xp_addrlen;
    copy->xp_raddr = source->xp_raddr;
    copy->xp_verf = source->xp_verf;
    SVCXPRT_EXT& extension = reinterpret_cast<TransportCopy*>(copy)->extension;
    extension = *SVCEXT(source);
    copy->xp_p3 = &extension;
    Connection* guard = Connection::Of(source);
    if (guard != nullptr) guard->AddCall();
    copy->xp_p2 = guard;
}

static void CopyConnection(const tcp_conn* source, tcp_conn* copy) {
    copy->strm_stat = source->strm_stat;
    copy->x_id = source->x_id;
}

// The verifier's bytes lie on the receive thread's stack; the copy keeps them in its own record.
static void CopyVerifier(const SVCXPRT* source, SVCXPRT* copy, tcp_conn* connection) {
    const unsigned length = source->xp_verf.oa_length;
    if (length > 0 && length <= sizeof connection->verf_body)
        memcpy(connection->verf_body, source->xp_verf.oa_base, length);
    else
        copy->xp_verf.oa_length = 0;
    copy->xp_verf.oa_base = connection->verf_body;
}

static bool CreateStream(SVCXPRT* owner, tcp_conn* connection) {
    connection->xdrs.x_ops = nullptr;
    xdrrec_create(&connection->xdrs, gMaxRPCSendSize, gMaxRPCRecvSize, owner, nullptr, mywritetcp);
    return connection->xdrs.x_ops != nullptr;  // unset when the library was out of memory
}

SVCXPRT* DupSVCXPRT(SVCXPRT* source) {
    if (source == nullptr) return nullptr;
    auto* memory = static_cast<TransportCopy*>(calloc(1, sizeof(TransportCopy)));
    if (memory == nullptr) return nullptr;
    SVCXPRT* copy = &memory->transport;
    tcp_conn* connection = DupTcpCon(static_cast<tcp_conn*>(source->xp_p1), copy);
    if (connection == nullptr) {
        free(memory);
        return nullptr;
    }
    copy->xp_p1 = connection;
    CopyCall(source, copy);
    CopyVerifier(source, copy, connection);
    return copy;
}

bool DupSVCXPRT(SVCXPRT* source, SVCXPRT* copy) {
    auto* connection = static_cast<tcp_conn*>(copy->xp_p1);
    if (connection == nullptr) {
        connection = static_cast<tcp_conn*>(calloc(1, sizeof(tcp_conn)));
        if (connection == nullptr) return false;
        copy->xp_p1 = connection;
    }
    if (!DupTcpCon(static_cast<tcp_conn*>(source->xp_p1), copy, connection)) return false;
    CopyCall(source, copy);
    CopyVerifier(source, copy, connection);
    return true;
}

SVCXPRT* DupWithoutStream(SVCXPRT* source, SVCXPRT* copy) {
    if (copy == nullptr) {
        auto* memory = static_cast<TransportCopy*>(calloc(1, sizeof(TransportCopy)));
        if (memory == nullptr) return nullptr;
        memory->transport.xp_p1 = calloc(1, sizeof(tcp_conn));
        if (memory->transport.xp_p1 == nullptr) {
            free(memory);
            return nullptr;
        }
        copy = &memory->transport;
    }
    auto* connection = static_cast<tcp_conn*>(copy->xp_p1);
    CopyConnection(static_cast<const tcp_conn*>(source->xp_p1), connection);
    CopyCall(source, copy);
    CopyVerifier(source, copy, connection);
    return copy;
}

tcp_conn* DupTcpCon(tcp_conn* source, SVCXPRT* owner) {
    if (source == nullptr) return nullptr;
    auto* copy = static_cast<tcp_conn*>(calloc(1, sizeof(tcp_conn)));
    if (copy == nullptr) return nullptr;
    if (!DupTcpCon(source, owner, copy)) {
        free(copy);
        return nullptr;
    }
    return copy;
}

bool DupTcpCon(tcp_conn* source, SVCXPRT* owner, tcp_conn* copy) {
    CopyConnection(source, copy);
    return copy->xdrs.x_ops != nullptr || CreateStream(owner, copy);
}

void ParkSVCXPRT(SVCXPRT* copy) {
    if (copy == nullptr) return;
    auto* connection = static_cast<tcp_conn*>(copy->xp_p1);
    if (connection != nullptr && connection->strm_stat == XPRT_DIED) {
        FreeTcpCon(connection);
        copy->xp_p1 = nullptr;
    }
    if (Connection* guard = Connection::Of(copy)) {
        copy->xp_p2 = nullptr;
        guard->Drop();
    }
    copy->xp_fd = -1;
}

void FreeSVCXPRT(SVCXPRT* copy) {
    if (copy == nullptr) return;
    FreeTcpCon(static_cast<tcp_conn*>(copy->xp_p1));
    if (Connection* guard = Connection::Of(copy)) guard->Drop();
    free(reinterpret_cast<TransportCopy*>(copy));
}

void FreeTcpCon(tcp_conn* connection) {
    if (connection == nullptr) return;
    if (connection->xdrs.x_ops != nullptr && connection->xdrs.x_ops->x_destroy != nullptr)
        XDR_DESTROY(&connection->xdrs);
    free(connection);
}

int mywritetcp(void* handle, void* buffer, int length) {
    auto* copy = static_cast<SVCXPRT*>(handle);
    const char* next = static_cast<const char*>(buffer);
    for (int remaining = length; remaining > 0;) {
        const ssize_t written = write(copy->xp_fd, next, static_cast<size_t>(remaining));
        if (written < 0) {
            static_cast<tcp_conn*>(copy->xp_p1)->strm_stat = XPRT_DIED;
            return -1;
        }
        next += written;
        remaining -= static_cast<int>(written);
    }
    return length;
}

bool CheckTransportLayout() {
    static constexpr uint32_t kTransactionId = 0x4f58454c;
    static constexpr uint32_t kMarker = 0x6e667364;
    // A NULL call (RFC 5531 section 9) with one word behind it, as the arguments would be.
    const uint32_t call[] = {htonl(0x80000000u | 44),
                             htonl(kTransactionId),
                             htonl(CALL),
                             htonl(RPC_MSG_VERSION),
                             htonl(OxelServiceGlobals::nfsProgram),
                             htonl(3),
                             htonl(NULLPROC),
                             htonl(AUTH_NONE),
                             0,
                             htonl(AUTH_NONE),
                             0,
                             htonl(kMarker)};

    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        OXEL_LOG(-1, "Error: No socket pair to check the RPC library with. [%s]", strerror(errno));
        return false;
    }
    oxel::UniqueFd client(ends[0]), server(ends[1]);
    SVCXPRT* transport = svc_fd_create(server.Get(), gMaxRPCSendSize, gMaxRPCRecvSize);
    if (transport == nullptr) {
        OXEL_LOG(-1, "Error: The RPC library gives no transport for a connected socket.");
        return false;
    }
    (void)server.Release();  // the library's from here

    rpc_msg message{};
    char credential[2 * MAX_AUTH_BYTES];
    message.rm_call.cb_cred.oa_base = credential;
    message.rm_call.cb_verf.oa_base = credential + MAX_AUTH_BYTES;
    bool asExpected = write(client.Get(), call, sizeof call) == sizeof call &&
                      SVC_RECV(transport, &message) && transport->xp_p1 != nullptr &&
                      transport->xp_p2 == nullptr && transport->xp_p3 != nullptr;
    if (asExpected) {
        auto* connection = static_cast<tcp_conn*>(transport->xp_p1);
        uint32_t marker = 0;
        asExpected = connection->strm_stat == XPRT_IDLE && connection->x_id == kTransactionId &&
                     connection->xdrs.x_op == XDR_DECODE && connection->xdrs.x_ops != nullptr &&
                     xdr_u_int(&connection->xdrs, &marker) && marker == kMarker;
    }
    SVC_DESTROY(transport);
    if (!asExpected)
        OXEL_LOG(-1,
                 "Error: This RPC library keeps its connections in another form than this "
                 "daemon was built for. Network services cannot start.");
    return asExpected;
}
