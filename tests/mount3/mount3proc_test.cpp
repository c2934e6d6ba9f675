// SPDX-License-Identifier: Apache-2.0
//
// The answers and messages of the MOUNT procedures.
#include "mount3/mount3proc.h"

#include <gmock/gmock.h>

#include <ctime>
#include <string>

#include "backend/export_registry.h"
#include "mount3/mount3xdr.h"
#include "nfs3/nfs3proc.h"
#include "tests/mount3/mount3_fixture.h"
#include "tests/nfs3/nfs3xdr_wire.h"
#include "tests/support/contract_mocks.h"
#include "tests/support/log_capture.h"

using namespace oxel::test;
using testing::_;
using testing::Return;

namespace {

const char kMntFunction[] = "bool_t Handle_MNT3(CallInfo3*)";
const char kUmntFunction[] = "bool_t Handle_UMNT3(CallInfo3*)";
const char kExportFunction[] = "bool_t Handle_EXPORT3(CallInfo3*)";

using Lines = std::vector<LogLine>;

boost::shared_ptr<NiceExport> MakeShare(const std::string& path,
                                        FSModuleType type = kLocalModuleType) {
    auto share = boost::make_shared<NiceExport>(path);
    ON_CALL(*share, GetFSMType).WillByDefault(Return(type));
    ON_CALL(*share, IsClientAllowed).WillByDefault(Return(true));
    ON_CALL(*share, AddMountPoint).WillByDefault([](const CLuIPAddr&, nfs_fh3* root) {
        *root = MakeHandle(kLocalModuleType, 42, 0xab);
        return 0;
    });
    return share;
}

boost::shared_ptr<NiceFSM> MakeModule() {
    auto module = boost::make_shared<NiceFSM>();
    ON_CALL(*module, GetHandleString).WillByDefault(Return("handle text"));
    return module;
}

std::vector<unsigned char> Reply(bool_t (*codec)(XDR*, MNT3res*), MNT3res* result) {
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(Encode(codec, result, 1000, true, &bytes));
    return bytes;
}

}  // namespace

class Mnt : public MountTest {
  protected:
    Mnt() {
        FSMCache::SetFSM(kLocalModuleType, module_);
        gAllExports.Replace({{42, share_}});
        RequestPath("/srv/data");
        DirtyResult();
    }

    MNT3res& result() { return record_.result.mnt; }

    boost::shared_ptr<NiceExport> share_ = MakeShare("/srv/data");
    boost::shared_ptr<NiceFSM> module_ = MakeModule();
};

TEST_F(Mnt, OfAPathThatIsNotExportedIsNoent) {
    LogCapture log;
    RequestPath("/srv/other");
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(MNT3ERR_NOENT, result().fhs_status);
    EXPECT_EQ(nullptr, record_.exportPtr);
    // Beside the line for administrators, which has a test of its own.
    Lines own = log.Lines();
    std::erase_if(own, [](const LogLine& line) { return line.function != kMntFunction; });
    EXPECT_EQ((Lines{{1, kMntFunction, "Request to mount [/srv/other]."},
                     {1, kMntFunction, "[/srv/other] is not exported."}}),
              own);
    EXPECT_EQ("00000002 ", Hex(Reply(xdr_MNT3res, &result())));
    EXPECT_EQ("", Registry());
    EXPECT_EQ(1, Free_MNT3(&record_));
}

TEST_F(Mnt, OfAPathBelowAShareIsNoent) {
    RequestPath("/srv/data/below");
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(MNT3ERR_NOENT, result().fhs_status);
}

TEST_F(Mnt, ByAClientOutsideTheSharesRulesIsAcces) {
    LogCapture log;
    EXPECT_CALL(*share_, IsClientAllowed(_, "")).WillOnce(Return(false));
    EXPECT_CALL(*share_, AddMountPoint).Times(0);
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(MNT3ERR_ACCES, result().fhs_status);
    EXPECT_EQ((Lines{{1, kMntFunction, "Request to mount [/srv/data]."},
                     {-1, kMntFunction,
                      "Client [192.0.2.7] is not authorized to mount share [/srv/data]."}}),
              log.Lines());
    EXPECT_EQ("0000000d ", Hex(Reply(xdr_MNT3res, &result())));
    EXPECT_EQ("", Registry());
    EXPECT_EQ(0, share_->GetLastAccessTime());
}

TEST_F(Mnt, AsksTheShareWithTheCallersAddressAndNoHostName) {
    EXPECT_CALL(*share_, IsClientAllowed(XOIPAddr(record_.identity.clientAddress), ""))
        .WillOnce(Return(true));
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(MNT3_OK, result().fhs_status);
    Free_MNT3(&record_);
}

TEST_F(Mnt, OfAShareWithoutModuleIsOkWithAnEmptyHandle) {
    LogCapture log;
    FSMCache::SetFSM(kLocalModuleType, FSMPtr());
    EXPECT_CALL(*share_, AddMountPoint).Times(0);
    EXPECT_EQ(10001, Handle_MNT3(&record_));
    EXPECT_EQ((Lines{{1, kMntFunction, "Request to mount [/srv/data]."},
                     {-1, kMntFunction, "No File System Module for this export. [/srv/data]."}}),
              log.Lines());
    EXPECT_EQ("00000000 00000000 00000000 ", Hex(Reply(xdr_MNT3res, &result())));
    EXPECT_EQ("", Registry());
    EXPECT_EQ(1, Free_MNT3(&record_));
}

TEST_F(Mnt, ThatSucceedsHandsOutTheRootHandleAndTwoFlavoursWithAuthUnixSecond) {
    LogCapture log;
    EXPECT_CALL(*share_, AddMountPoint).WillOnce([this](const CLuIPAddr& client, nfs_fh3* root) {
        EXPECT_TRUE(client.SameHost(record_.identity.clientAddress));
        *root = MakeHandle(kLocalModuleType, 42, 0xab);
        return -1;  // not looked at
    });
    const long before = time(nullptr);
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(MNT3_OK, result().fhs_status);
    EXPECT_EQ(share_, record_.exportPtr);
    EXPECT_EQ(42u, result().mountinfo.fhandle.shareId);
    ASSERT_EQ(2u, result().mountinfo.auth_flavors.auth_flavors_len);
    EXPECT_EQ(uint32_t{AUTH_NONE}, result().mountinfo.auth_flavors.auth_flavors_val[0]);
    EXPECT_EQ(uint32_t{AUTH_UNIX}, result().mountinfo.auth_flavors.auth_flavors_val[1]);
    EXPECT_EQ("00000000 00000010 00000001 0000002a abababab abababab 00000002 00000000 00000001 ",
              Hex(Reply(xdr_MNT3res, &result())));
    EXPECT_EQ((Lines{{1, kMntFunction, "Request to mount [/srv/data]."},
                     {4, kMntFunction, "fh [handle text]"},
                     {1, kMntFunction, "Successfully added mount point [/srv/data : 42]."},
                     {1, kMntFunction, "FH for Share is [handle text]."},
                     {1, kMntFunction, "FSMType = [1]."}}),
              log.Lines());
    EXPECT_GE(share_->GetLastAccessTime(), before);
    oxel::ShareRecords saved;
    ASSERT_TRUE(oxel::ParseRegistry(Registry(), &saved));
    EXPECT_EQ(share_->GetLastAccessTime(), saved[42].lastAccess)
        << "the registry is saved after the time of access is set";
    EXPECT_EQ(1, Free_MNT3(&record_));
    EXPECT_EQ(nullptr, result().mountinfo.auth_flavors.auth_flavors_val);
    EXPECT_EQ(0u, result().mountinfo.auth_flavors.auth_flavors_len);
    EXPECT_EQ(1, Free_MNT3(&record_)) << "once more does no harm";
}

TEST_F(Mnt, FoldsTheRequestsSlashesAndShowsThePathAsItCame) {
    LogCapture log;
    RequestPath("//srv///data/");
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(MNT3_OK, result().fhs_status);
    EXPECT_TRUE(log.Has(1, "Request to mount [//srv///data/]."));
    EXPECT_TRUE(log.Has(1, "Successfully added mount point [//srv///data/ : 42]."));
    Free_MNT3(&record_);
}

TEST_F(Mnt, OfAnUnlistedShareSucceeds) {
    auto unlisted = MakeShare("/srv/hidden", kUnlistedModuleType);
    gAllExports.Replace({{7, unlisted}});
    FSMCache::SetFSM(kUnlistedModuleType, module_);
    RequestPath("/srv/hidden");
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(MNT3_OK, result().fhs_status);
    Free_MNT3(&record_);
    FSMCache::SetFSM(kUnlistedModuleType, FSMPtr());
}

TEST_F(Mnt, ReplacesTheShareOfTheCallBefore) {
    EXPECT_NE(0, Handle_MNT3(&record_));
    Free_MNT3(&record_);
    EXPECT_EQ(share_, record_.exportPtr);
    RequestPath("/srv/other");
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(nullptr, record_.exportPtr);
}

TEST_F(Mnt, IsAnsweredWhenTheRegistryCannotBeSaved) {
    LogCapture log;
    setenv("OXEL_ROOT", "/dev/null/nowhere", 1);
    EXPECT_NE(0, Handle_MNT3(&record_));
    EXPECT_EQ(MNT3_OK, result().fhs_status);
    EXPECT_EQ(2u, result().mountinfo.auth_flavors.auth_flavors_len);
    Free_MNT3(&record_);
}

class Umnt : public MountTest {
  protected:
    Umnt() {
        gAllExports.Replace({{42, share_}});
        RequestPath("//srv/data/");
    }

    boost::shared_ptr<NiceExport> share_ = MakeShare("/srv/data");
};

TEST_F(Umnt, OfAShareIsNotedAndTheRegistrySaved) {
    LogCapture log;
    gAllExports.RecordMount(42, "192.0.2.7");
    EXPECT_EQ("", Registry());
    EXPECT_NE(0, Handle_UMNT3(&record_));
    EXPECT_EQ((Lines{{1, kUmntFunction, "Request to unmount [//srv/data/]."},
                     {1, kUmntFunction, "Client [192.0.2.7] unmounted [/srv/data]"}}),
              log.Lines());
    EXPECT_EQ(share_, record_.exportPtr);
    oxel::ShareRecords saved;
    ASSERT_TRUE(oxel::ParseRegistry(Registry(), &saved));
    EXPECT_EQ(1u, saved[42].mounts.count("192.0.2.7")) << "nothing is removed";
    EXPECT_EQ(1, Free_UMNT3(&record_));
}

TEST_F(Umnt, OfAnUnknownPathIsStillAnswered) {
    LogCapture log;
    gAllExports.RecordMount(42, "192.0.2.7");
    RequestPath("/srv//other");
    EXPECT_NE(0, Handle_UMNT3(&record_));
    EXPECT_EQ((Lines{{1, kUmntFunction, "Request to unmount [/srv//other]."},
                     {-1, kUmntFunction, "Export [/srv/other] not found."}}),
              log.Lines());
    EXPECT_EQ("", Registry());
    EXPECT_EQ(1, Free_UMNT3(&record_));
}

class ExportList : public MountTest {
  protected:
    std::vector<std::string> Listed() {
        std::vector<std::string> paths;
        const exportlist3* link = &record_.result.exports.exports;
        for (; link->present; link = &link->node->next) {
            EXPECT_FALSE(link->node->ex_groups.present);
            EXPECT_EQ(nullptr, link->node->ex_groups.group);
            paths.push_back(link->node->ex_dir);
        }
        EXPECT_EQ(nullptr, link->node);
        return paths;
    }
};

TEST_F(ExportList, HasEveryShareThatIsNotOfModuleType2InTheMapsOrder) {
    LogCapture log;
    Shares shares;
    for (unsigned id = 1; id <= 40; ++id)
        shares.push_back(
            {id * 977, MakeShare("/srv/" + std::to_string(id),
                                 id % 5 == 0 ? kUnlistedModuleType : kLocalModuleType)});
    gAllExports.Replace(shares);
    DirtyResult();
    EXPECT_NE(0, Handle_EXPORT3(&record_));

    ExportCache::ExportMap map(11);
    gAllExports.GetExportsNotForFSM(2, map);
    std::vector<std::string> expected;
    for (const auto& [id, share] : map) expected.push_back(share->GetPath());
    EXPECT_EQ(32u, expected.size());
    EXPECT_EQ(expected, Listed());
    EXPECT_EQ((Lines{{1, kExportFunction, "Request for list of exported folders.."}}), log.Lines());

    EXPECT_EQ(1, Free_EXPORT3(&record_));
    EXPECT_TRUE(Listed().empty());
    EXPECT_EQ(1, Free_EXPORT3(&record_)) << "once more does no harm";
}

TEST_F(ExportList, WithOnlyModuleType2SharesIsEmpty) {
    gAllExports.Replace(
        {{1, MakeShare("/a", kUnlistedModuleType)}, {2, MakeShare("/b", kUnlistedModuleType)}});
    DirtyResult();
    EXPECT_NE(0, Handle_EXPORT3(&record_));
    EXPECT_TRUE(Listed().empty());
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(Encode(xdr_EXPORT3res, &record_.result.exports, 100, true, &bytes));
    EXPECT_EQ("00000000 ", Hex(bytes));
    EXPECT_EQ(1, Free_EXPORT3(&record_));
}

TEST_F(ExportList, GoesOutWithItsPathsAndEmptyGroups) {
    gAllExports.Replace({{1, MakeShare("/srv/data")}});
    EXPECT_NE(0, Handle_EXPORT3(&record_));
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(Encode(xdr_EXPORT3res, &record_.result.exports, 100, true, &bytes));
    EXPECT_EQ(Hex(Wire().U32(1).Opaque("/srv/data").U32(0).U32(0).Bytes()), Hex(bytes));
    Free_EXPORT3(&record_);
}

TEST_F(ExportList, OfManySharesIsBuiltAndReleasedInALoop) {
    Shares shares;
    for (unsigned id = 1; id <= 20000; ++id) {
        auto share = boost::make_shared<NiceExport>("/s" + std::to_string(id));
        shares.push_back({id, share});
    }
    gAllExports.Replace(shares);
    EXPECT_NE(0, Handle_EXPORT3(&record_));
    EXPECT_EQ(20000u, Listed().size());
    Free_EXPORT3(&record_);
}

class OtherMount : public MountTest {};

TEST_F(OtherMount, DumpAnswersAnEmptyList) {
    LogCapture log;
    DirtyResult();
    EXPECT_NE(0, Handle_DUMP3(&record_));
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(Encode(xdr_DUMP3res, &record_.result.dump, 100, true, &bytes));
    EXPECT_EQ("00000000 ", Hex(bytes));
    EXPECT_EQ(1, Free_DUMP3(&record_));
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(OtherMount, UmntallAnswersAndDoesNothing) {
    LogCapture log;
    EXPECT_NE(0, Handle_UMNTALL3(&record_));
    EXPECT_EQ(1, Free_UMNTALL3(&record_));
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_EQ("", Registry());
}

TEST_F(OtherMount, TheTableKnowsTheSixProcedures) {
    const auto routine = [](auto* function) {
        return reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(function));
    };
    const ProcedureRow expected[] = {
        {Handle_NULL3, nullptr, routine(xdr_void), routine(xdr_void), nullptr, "NULL3", 0},
        {Handle_MNT3, nullptr, routine(xdr_MNT3args), routine(xdr_MNT3res), Free_MNT3, "MNT3", 0},
        {Handle_DUMP3, nullptr, routine(xdr_DUMP3args), routine(xdr_DUMP3res), Free_DUMP3, "DUMP3",
         0},
        {Handle_UMNT3, nullptr, routine(xdr_UMNT3args), routine(xdr_UMNT3res), Free_UMNT3, "UMNT3",
         0},
        {Handle_UMNTALL3, nullptr, routine(xdr_UMNTALL3args), routine(xdr_UMNTALL3res),
         Free_UMNTALL3, "UMNTALL3", 0},
        {Handle_EXPORT3, nullptr, routine(xdr_EXPORT3args), routine(xdr_EXPORT3res), Free_EXPORT3,
         "EXPORT3", 0},
    };
    for (int i = 0; i < kMount3ProcedureCount; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(expected[i].handler, Mountv3Handlers[i].handler);
        EXPECT_EQ(expected[i].getExport, Mountv3Handlers[i].getExport);
        EXPECT_EQ(expected[i].xdrArguments, Mountv3Handlers[i].xdrArguments);
        EXPECT_EQ(expected[i].xdrResult, Mountv3Handlers[i].xdrResult);
        EXPECT_EQ(expected[i].release, Mountv3Handlers[i].release);
        EXPECT_STREQ(expected[i].name, Mountv3Handlers[i].name);
        EXPECT_EQ(expected[i].replyBytes, Mountv3Handlers[i].replyBytes);
    }
}
