// SPDX-License-Identifier: Apache-2.0
//
// Every argument decoder of NFS and MOUNT, by way of the procedure tables. The first byte picks the
// procedure, the rest is what came behind the call's header. Whatever was decoded, in part or in
// full, is released and must leave nothing behind.
#include <rpc/rpc.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "bin/oxelService_callinfo.h"
#include "mount3/mount3proc.h"
#include "nfs3/nfs3proc.h"

static const ProcedureRow& Pick(uint8_t byte) {
    const unsigned index = byte % (kNfs3ProcedureCount + kMount3ProcedureCount);
    return index < kNfs3ProcedureCount ? Nfsv3Handlers[index]
                                       : Mountv3Handlers[index - kNfs3ProcedureCount];
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    static CallInfo3* const call = new CallInfo3;
    call->ClearCall();
    call->row = &Pick(data[0]);
    // The stream wants memory that it may write to.
    std::vector<char> body(data + 1, data + size);
    XDR stream;
    xdrmem_create(&stream, body.data(), static_cast<u_int>(body.size()), XDR_DECODE);
    if (call->row->xdrArguments(&stream, &call->arguments()) && xdr_getpos(&stream) > body.size())
        abort();
    XDR release;
    release.x_op = XDR_FREE;
    call->row->xdrArguments(&release, &call->arguments());
    return 0;
}
