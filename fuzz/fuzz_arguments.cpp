// SPDX-License-Identifier: Apache-2.0
//
// Every argument decoder of NFS and MOUNT, by way of the procedure tables. The first byte picks the
// procedure, the rest is what came behind the call's header. What was decoded can be encoded, and
// decoded again to the same; whatever was decoded, in part or in full, is released and must leave
// nothing behind.
#include <rpc/rpc.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bin/oxelService_callinfo.h"
#include "mount3/mount3proc.h"
#include "nfs3/nfs3proc.h"

static const ProcedureRow& Pick(uint8_t byte) {
    const unsigned index = byte % (kNfs3ProcedureCount + kMount3ProcedureCount);
    return index < kNfs3ProcedureCount ? Nfsv3Handlers[index]
                                       : Mountv3Handlers[index - kNfs3ProcedureCount];
}

// The bytes of what `call` holds.
static std::string Encoded(CallInfo3* call, size_t bytesMax) {
    std::vector<char> bytes(bytesMax);
    XDR stream;
    xdrmem_create(&stream, bytes.data(), static_cast<u_int>(bytes.size()), XDR_ENCODE);
    if (!call->row->xdrArguments(&stream, &call->arguments())) abort();
    return std::string(bytes.data(), xdr_getpos(&stream));
}

static bool Decode(CallInfo3* call, std::vector<char>* body) {
    XDR stream;
    xdrmem_create(&stream, body->data(), static_cast<u_int>(body->size()), XDR_DECODE);
    if (!call->row->xdrArguments(&stream, &call->arguments())) return false;
    if (xdr_getpos(&stream) > body->size()) abort();
    return true;
}

static void Release(CallInfo3* call) {
    XDR release;
    release.x_op = XDR_FREE;
    call->row->xdrArguments(&release, &call->arguments());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    static CallInfo3* const call = new CallInfo3;
    call->ClearCall();
    call->row = &Pick(data[0]);
    // The stream wants memory that it may write to.
    std::vector<char> body(data + 1, data + size);
    const bool decoded = Decode(call, &body);
    if (decoded) {
        // A WRITE has as much data as it counts, whether that came or not.
        const bool isWrite = call->row == &Nfsv3Handlers[7];
        const size_t bytesMax = body.size() + (isWrite ? call->arguments().write.count : 0) + 64;
        const bool encodable = !isWrite || call->arguments().write.count <= NFS3_MAXBUF_SIZE;
        const std::string once = encodable ? Encoded(call, bytesMax) : "";
        Release(call);
        if (!encodable) return 0;
        call->ClearCall();
        call->row = &Pick(data[0]);
        std::vector<char> again(once.begin(), once.end());
        if (!Decode(call, &again) || Encoded(call, bytesMax) != once) abort();
    }
    Release(call);
    return 0;
}
