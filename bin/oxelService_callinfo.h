// SPDX-License-Identifier: Apache-2.0
//
// The record of one call, from the decoding of its arguments until its reply is out, and the pool
// that such records come from.
#pragma once

#include <rpc/rpc.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "backend/Export.h"
#include "backend/IdInfo.h"
#include "backend/OxelServiceGlobals.h"
#include "base/latency_histogram.h"
#include "base/sync.h"
#include "mount3/mount3types.h"
#include "nfs3/nfs3types.h"

struct CallInfo3;
struct ClientAccount;

// All that is known of one procedure. Row i of a table is procedure i.
struct ProcedureRow {
    bool_t (*handler)(CallInfo3*);  // non-zero: send a reply; null: no such procedure
    void (*getExport)(CallInfo3*);  // resolves the share of the first handle; or null
    xdrproc_t xdrArguments;
    xdrproc_t xdrResult;
    bool_t (*release)(CallInfo3*);  // after the reply; or null
    const char* name;
    uint32_t replyBytes;  // the fixed part of a reply, for the send counter
};

union CallArguments3 {
    GETATTR3args getattr;
    SETATTR3args setattr;
    LOOKUP3args lookup;
    ACCESS3args access;
    READLINK3args readlink;
    READ3args read;
    WRITE3args write;
    CREATE3args create;
    MKDIR3args mkdir;
    SYMLINK3args symlink;
    MKNOD3args mknod;
    REMOVE3args remove;
    RMDIR3args rmdir;
    RENAME3args rename;
    LINK3args link;
    READDIR3args readdir;
    READDIRPLUS3args readdirplus;
    FSSTAT3args fsstat;
    FSINFO3args fsinfo;
    PATHCONF3args pathconf;
    COMMIT3args commit;
    MNT3args mnt;
    UMNT3args umnt;
};

union CallResult3 {
    GETATTR3res getattr;
    SETATTR3res setattr;
    LOOKUP3res lookup;
    ACCESS3res access;
    READLINK3res readlink;
    READ3res read;
    WRITE3res write;
    CREATE3res create;
    MKDIR3res mkdir;
    SYMLINK3res symlink;
    MKNOD3res mknod;
    REMOVE3res remove;
    RMDIR3res rmdir;
    RENAME3res rename;
    LINK3res link;
    READDIR3res readdir;
    READDIRPLUS3res readdirplus;
    FSSTAT3res fsstat;
    FSINFO3res fsinfo;
    PATHCONF3res pathconf;
    COMMIT3res commit;
    MNT3res mnt;
    DUMP3res dump;
    EXPORT3res exports;
};

// Belongs to the pool while it is free, else to the one call that it serves; each step of the road
// of a call has it alone. About 2 MiB, nearly all of it the WRITE data area behind `arguments`.
struct CallInfo3 {
    CallInfo3();
    ~CallInfo3();
    CallInfo3(const CallInfo3&) = delete;
    CallInfo3& operator=(const CallInfo3&) = delete;

    // Makes the record ready for another call: no transport, row or share, areas zero. The identity
    // stays until the dispatcher overwrites it. Never fails, so a record always gets back to its
    // pool.
    void Reset() noexcept;
    // Zeroes procedure, arguments and result. The WRITE data area needs no clearing: its decoder
    // zeroes what a handler may look at and the client did not send. Makes the area larger when the
    // transfer size was configured after the record was made; std::bad_alloc when that fails (the
    // record is zeroed and of its old size then, and must not decode a WRITE).
    void ClearCall();
    // READ's buffer: at least `bytes` long, kept for the record's later calls. Null when memory is
    // short. `bytes` is at most NFS3_MAXBUF_SIZE + 1.
    char* ReadBuffer(uint64_t bytes);
    // The record's own copy of the machine name, cut to AUTH_UNIX's 255 bytes; points identity
    // there.
    void SetMachineName(const char* name);

    SVCXPRT* transport = nullptr;  // where the reply goes
    IdInfo identity;
    int32_t procedure = 0;
    CallResult3 result;
    const ProcedureRow* row = nullptr;
    ExportPtr exportPtr;      // the share that the call resolved
    uint32_t replyBytes = 0;  // payload beyond the row's fixed size

    // The account of calls; written by the call, and looked at by whoever asks what is under way.
    std::atomic<uint64_t> began{0};  // MonotonicNanoseconds() of its dispatching; 0: no call
    std::atomic<ClientAccount*> client{nullptr};  // null: none, or memory was short

    // The arguments end in the WRITE data area, so they lie in memory of their own.
    CallArguments3& arguments() { return *arguments_; }

    // The transport copy stays with the record and is re-armed for each call (owned, opaque here).
    SVCXPRT* transportCopy = nullptr;
    // How the destructor gives the transport copy back. The service layer sets it before the first
    // record exists; while it is null the copy is left alone.
    static void (*freeTransportCopy)(SVCXPRT*);

  private:
    void FitArgumentArea();
    void ZeroCall() noexcept;

    CallArguments3* arguments_ = nullptr;
    uint64_t argumentBytes_ = 0;
    char* readBuffer_ = nullptr;
    uint64_t readBufferBytes_ = 0;
    bool clear_ = false;  // nothing has touched the areas since Reset()
    char machineName_[256] = {};
};

// A blocking free list of records, filled once. Any thread.
template <typename T>
class TMemPool {
  public:
    TMemPool() : available_(false) {}
    // Deletes the records that are free; one that a call still has stays with that call.
    ~TMemPool();
    TMemPool(const TMemPool&) = delete;
    TMemPool& operator=(const TMemPool&) = delete;

    // Adds `count` fresh records. std::bad_alloc passes through.
    void Init(int count);
    // Gives a record back. The caller has Reset() it. Does not allocate for a record that came from
    // Pop, and wakes nobody unless somebody waits.
    void Push(T* record);
    // Takes the record that has been free longest; blocks while there is none: the back-pressure of
    // the NFS service is that the receive thread stops here.
    T* Pop();
    // Takes the record that was given back last, whose memory the caches still hold. Null when
    // there is none.
    T* TryPopRecent();

    // Records made by Init, and those of them that are free now.
    size_t Total() const;
    size_t Free() const;
    // All records made by Init: they are never given back to the system, and a call may have each.
    std::vector<const T*> All() const;

    // How long callers of Pop() had to wait, and others that tell so; only those that had to.
    void CountWait(uint64_t nanoseconds) { waits_.Add(nanoseconds); }
    oxel::LatencyReading Waits() const { return waits_.Read(); }

  private:
    T* Take(typename std::list<T*>::iterator node) REQUIRES(lock_);

    mutable XoCriticalSectionH lock_;
    std::list<T*> free_ GUARDED_BY(lock_);
    std::list<T*> spareNodes_ GUARDED_BY(lock_);  // list nodes of records that are out
    std::vector<const T*> all_ GUARDED_BY(lock_);
    size_t waiters_ GUARDED_BY(lock_) = 0;
    XoEventH available_;
    oxel::LatencyHistogram waits_;
};

// The NFS service's pool. Never destroyed: worker threads may still give records back while the
// process ends.
extern TMemPool<CallInfo3>& gCallInfoPool;
