// SPDX-License-Identifier: Apache-2.0
//
// The MOUNT protocol's procedures (RFC 1813 appendix I): they hand a client the root handle of a
// share, list the shares, and take note of unmounts. They run on the receive thread, one call at a
// time. A handler fills the call record's result and returns non-zero: the reply is to be sent. An
// allocation that fails passes through as std::bad_alloc; nothing hangs off the result then.
#pragma once

#include "bin/oxelService_callinfo.h"

inline constexpr int MOUNTPROC3_MNT = 1;
inline constexpr int kMount3ProcedureCount = 6;
extern const ProcedureRow Mountv3Handlers[kMount3ProcedureCount];

bool_t Handle_MNT3(CallInfo3* call);
bool_t Handle_DUMP3(CallInfo3* call);
bool_t Handle_UMNT3(CallInfo3* call);
bool_t Handle_UMNTALL3(CallInfo3* call);
bool_t Handle_EXPORT3(CallInfo3* call);

// Release what a handler hung off the result, after the reply; each returns 1. The result holds no
// pointers afterwards.
bool_t Free_MNT3(CallInfo3* call);
bool_t Free_DUMP3(CallInfo3* call);
bool_t Free_UMNT3(CallInfo3* call);
bool_t Free_UMNTALL3(CallInfo3* call);
bool_t Free_EXPORT3(CallInfo3* call);
