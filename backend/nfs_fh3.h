// SPDX-License-Identifier: Apache-2.0
//
// The file handle, shared by the protocol side (which codes it) and the modules (which make it).
#pragma once

#include <cstdint>

// A file handle in memory (RFC 1813 section 2.3.3: at most 64 opaque bytes on the wire).
//
//   wire offset  0        4         8         12
//               | nfh_len | fsmType | shareId | objectId, nfh_len - 8 bytes, zero-padded to 4 |
//               '-- the XDR length of the opaque, which counts fsmType, shareId and objectId
//
// The three words are big-endian on the wire and in host order here. The daemon never looks into
// objectId; it belongs to the module that made the handle.
struct nfs_fh3 {
    static constexpr uint32_t kLengthMin = 8;
    static constexpr uint32_t kLengthMax = 64;

    uint32_t nfh_len;  // 8 .. 64
    uint32_t fsmType;  // FSModuleType
    uint32_t shareId;
    unsigned char objectId[kLengthMax - kLengthMin];
};

// How stable WRITE's data must be before the reply (RFC 1813 section 3.3.7).
enum stable_how : uint32_t { UNSTABLE = 0, DATA_SYNC = 1, FILE_SYNC = 2 };
