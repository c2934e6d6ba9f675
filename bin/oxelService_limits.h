// SPDX-License-Identifier: Apache-2.0
//
// What a client may take of the daemon in hardened mode, and the account of the connections that
// were ended for taking more.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "bin/oxelService_records.h"

// Read once from section "Oxel" when the network services start; a value of 0 or none is the
// default.
struct ClientLimits {
    // "nMaxConnections". In all; each costs a descriptor and about 10 KiB.
    uint32_t connections = 8192;
    // "nMaxConnectionsPerAddress". Many clients may stand behind one address.
    uint32_t connectionsPerAddress = 2048;
    // "nRecordSeconds". From a record's first byte to its last, while the daemon reads.
    uint32_t recordSeconds = 60;
    // "nIdleSeconds". Without a call; clients connect again when they have one.
    uint32_t idleSeconds = 600;
    // "nSendSeconds". For a client to take the replies that are queued for it.
    uint32_t sendSeconds = 60;
    // "nMaxBufferedMB", in bytes. Large records that are not whole, and queued replies, of all.
    // Never less than sixteen of the largest transfers.
    uint64_t bufferedBytes = 64u << 20;
    // A WRITE of the largest transfer with its headers, and a fragment for each 256 bytes of the
    // default one.
    RecordBounds record{(256 << 10) + (8 << 10), 1024};

    // With record bounds for the transfer size in use.
    static ClientLimits FromSettings();
};

// Why a connection ended.
enum class EndReason : unsigned {
    kByClient,
    kRecordTooLarge,
    kTooManyFragments,
    kRecordTimeout,
    kIdle,
    kSendTimeout,
    kConnectionLimit,
    kAddressLimit,
    kBufferLimit,
    kNotACall,
};
inline constexpr size_t kEndReasons = 10;

// Counts an end and logs it with its client's address, the first few of a reason in each minute;
// `text` completes "Ended the connection of [...]: ". Any thread.
void CountEnd(EndReason reason, const std::string& address, const std::string& text);
// Logs how many of what clients did in the last minute had no line of their own, once the minute is
// over or, `atOnce`, as things stand. To be called often, and at the end; any thread.
void SumUpForClients(bool atOnce = false);
// How often each reason ended a connection, under its name in JSON. Any thread.
std::array<std::pair<const char*, uint64_t>, kEndReasons> EndCounts();
