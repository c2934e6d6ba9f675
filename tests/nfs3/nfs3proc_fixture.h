// SPDX-License-Identifier: Apache-2.0
//
// What every handler's test needs: a call record whose transport knows the client, and a mocked
// module with one share and one object behind one handle, all of which say yes.
#pragma once

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "backend/FSMCache.h"
#include "nfs3/nfs3proc.h"
#include "tests/support/contract_mocks.h"
#include "tests/support/log_capture.h"

namespace oxel::test {

inline constexpr FSModuleType kTestModuleType = 77;
inline constexpr uint32_t kTestShareId = 9;
inline constexpr const char* kClientText = "192.0.2.7";
inline constexpr const char* kValidateFunction =
    "nfsstat3 ValidateAndAuthorize(const nfs_fh3&, const IdInfo&, FSMPtr&, ExportPtr&, bool)";

inline constexpr const char* kNfsStatFunction =
    "int OSStatToNfsStat(OxelCtxt*, const std::string&, fattr3*)";
inline constexpr const char* kStaleText = "Error: Stale File Handle. FH [] IP [192.0.2.7]";
inline const std::string kPath = "/srv/share/dir/name";  // of the object

// The context carries the caller, the share and the object.
MATCHER_P2(IsContextOf, call, object, "") {
    return &arg->id == &call->identity && arg->exportPtr == call->exportPtr &&
           arg->object.get() == object && arg->secondObject == nullptr;
}

MATCHER_P(IsHandle, handle, "") {
    return std::memcmp(&arg, &handle, sizeof(nfs_fh3)) == 0;
}

inline struct stat FileStat(mode_t mode) {
    struct stat st {};
    st.st_mode = mode;
    st.st_nlink = 3;
    st.st_uid = 1001;
    st.st_gid = 1002;
    st.st_size = 5000;
    st.st_blocks = 16;
    st.st_blksize = 4096;
    st.st_ino = 4711;
    st.st_atime = 1000;
    st.st_mtime = 2000;
    st.st_ctime = 3000;
    return st;
}

// Stat succeeds with this record.
inline auto StatGives(const struct stat& st) {
    return [st](OxelCtxt*, const std::string&, struct stat* out) {
        *out = st;
        return 0;
    };
}

inline sockaddr_in6 ClientSocketAddress() {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(700);
    inet_pton(AF_INET6, "::ffff:192.0.2.7", &address.sin6_addr);
    return address;
}

class ProcTest : public testing::Test {
  protected:
    ProcTest() {
        transport_.xp_raddr = ClientSocketAddress();
        call_.transport = &transport_;
        call_.identity.uid = 500;
        call_.identity.gid = 501;
        call_.identity.clientAddress = CLuIPAddr(transport_.xp_raddr);

        FSMCache::SetFSM(kTestModuleType, module_);
        ON_CALL(*module_, GetHandleString).WillByDefault(testing::Return("handle text"));
        ON_CALL(*module_, GetExportForHandle)
            .WillByDefault([this](const nfs_fh3&, ExportPtr& share) {
                share = share_;
                return true;
            });
        ON_CALL(*module_, GetBkEndProc(testing::_, IsHandle(handle_)))
            .WillByDefault(testing::Return(object_));
        ON_CALL(*share_, IsWritable).WillByDefault(testing::Return(1u));
        ON_CALL(*share_, IsClientAllowed).WillByDefault(testing::Return(true));
        ON_CALL(*object_, Stat).WillByDefault(StatGives(FileStat(S_IFREG | 0644)));
    }
    ~ProcTest() override {
        FSMCache::SetFSM(kTestModuleType, FSMPtr());
        // An object whose expectations hold the object itself would never go away.
        testing::Mock::VerifyAndClear(object_.get());
    }

    // The messages of level -1, which are always written.
    std::vector<LogLine> Errors() const { return log_.AtLevel(-1); }

    // What every handler must say for a handle without an object.
    void ObjectIsGone() {
        EXPECT_CALL(*module_, GetBkEndProc(testing::_, IsHandle(handle_)))
            .WillRepeatedly(testing::Return(BkEndProcPtr()));
    }
    void ClientIsRefused() {
        EXPECT_CALL(*share_, IsClientAllowed).WillRepeatedly(testing::Return(false));
    }
    LogLine RefusalLine() const {
        return {-1, kValidateFunction,
                std::string("This object is not accessible to client [") + kClientText + "]"};
    }

    const nfs_fh3 handle_ = MakeHandle(kTestModuleType, kTestShareId, 0x11);
    boost::shared_ptr<NiceFSM> module_ = boost::make_shared<NiceFSM>();
    boost::shared_ptr<NiceExport> share_ = boost::make_shared<NiceExport>("/srv/share");
    boost::shared_ptr<NiceBkEndProc> object_ = boost::make_shared<NiceBkEndProc>(kPath, handle_);
    SVCXPRT transport_{};
    CallInfo3 call_;
    LogCapture log_;
};

}  // namespace oxel::test
