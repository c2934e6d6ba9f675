// SPDX-License-Identifier: Apache-2.0
//
// The NFS service in a test's child process: pools and records as the settings say, the dispatcher
// registered with the RPC library, one client, and a share whose every answer the test chooses. The
// test itself is the receive thread.
#pragma once

#include <gmock/gmock.h>

#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "backend/FSMCache.h"
#include "base/thread.h"
#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_transport.h"
#include "private_root.h"
#include "rpc_wire.h"
#include "tests/support/contract_mocks.h"
#include "tests/support/log_capture.h"

namespace oxel::test {

// Waits until other threads have made `condition` true; the child's alarm bounds it.
inline void Eventually(const std::function<bool()>& condition) {
    while (!condition()) std::this_thread::yield();
}

// A share of module type 7 with one object. Calls for it reach `object`.
struct MockShare {
    MockShare() {
        ON_CALL(*share, IsClientAllowed).WillByDefault(testing::Return(true));
        ON_CALL(*share, IsWritable).WillByDefault(testing::Return(1));
        ON_CALL(*module, GetExportForHandle)
            .WillByDefault([this](const nfs_fh3&, ExportPtr& found) {
                found = share;
                return true;
            });
        ON_CALL(*module, GetBkEndProc).WillByDefault([this](ExportPtr&, const nfs_fh3&) {
            return object;
        });
        ON_CALL(*object, Stat)
            .WillByDefault([this](OxelCtxt* ctxt, const std::string&, struct stat* out) {
                if (onStat) onStat(ctxt);
                *out = {};
                out->st_mode = S_IFREG | 0644;
                return 0;
            });
        FSMCache::SetFSM(kType, module);
    }
    ~MockShare() { FSMCache::SetFSM(kType, nullptr); }

    static constexpr FSModuleType kType = 7;
    // What GETATTR does on the handler's thread; set while no call is under way.
    std::function<void(OxelCtxt*)> onStat;
    boost::shared_ptr<NiceFSM> module{new NiceFSM};
    boost::shared_ptr<NiceExport> share{new NiceExport("/share")};
    boost::shared_ptr<NiceBkEndProc> object{new NiceBkEndProc("/share/object")};

    // The object's handle as it stands in a call.
    static std::string Handle() { return Word(16) + Word(kType) + Word(1) + std::string(8, 'h'); }
};

class NfsService {
  public:
    explicit NfsService(unsigned handlers = 1)
        : root_("[Oxel]\nnMaxNFSRPCThread = " + std::to_string(handlers) + "\n") {
        signal(SIGPIPE, SIG_IGN);
        EXPECT_TRUE(InitializeNFSRPCThreadPool());
        EXPECT_TRUE(svc_reg(connection.transport, 100003, 3, NfsDispatcher(), nullptr));
    }

    static RpcCall Null(uint32_t xid) {
        RpcCall call;
        call.xid = xid;
        return call;
    }
    // GETATTR of the share's object by root of the machine "host".
    static RpcCall Getattr(uint32_t xid) {
        RpcCall call;
        call.xid = xid;
        call.procedure = 1;
        call.arguments = MockShare::Handle();
        return call.WithUnix();
    }
    // Sends the call and has the library read it.
    void Dispatch(const RpcCall& call) {
        connection.client.Send(call);
        connection.Serve();
    }
    RpcReply Ask(const RpcCall& call) {
        Dispatch(call);
        const RpcReply reply = connection.client.Expect();
        EXPECT_EQ(reply.xid, call.xid);
        return reply;
    }
    // Returns when no call has a record any more.
    static void WaitForRecords() {
        std::vector<CallInfo3*> all;
        for (size_t i = 0; i < gCallInfoPool.Total(); ++i) all.push_back(gCallInfoPool.Pop());
        for (CallInfo3* record : all) gCallInfoPool.Push(record);
    }
    // Whether the service still answers.
    bool Answers() { return Ask(Null(0x7777)).accept == SUCCESS; }

  private:
    PrivateRoot root_;

  public:
    ServedConnection connection;
};

}  // namespace oxel::test
