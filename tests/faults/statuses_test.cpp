// SPDX-License-Identifier: Apache-2.0
//
// Which status a client sees for each reason that a back end can give, of each procedure.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/faults/faulty_daemon.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

using enum Operation;

constexpr int kLinuxErrnoMost = 133;
// RFC 1813 section 2.6 beyond Linux's numbers, and some that nobody has given a meaning.
constexpr int kOthers[] = {10001, 10003, 10004, 10006, 10008, 11111, 0x7fffffff};

class Statuses : public FaultTest {
  protected:
    void SetUp() override {
        StartDaemon(Mode::kManyThreads);
        if (HasFatalFailure()) return;
        std::filesystem::create_directories(Local("d/empty"));
        tree_.Write("share/d/f", "content");
        std::filesystem::create_symlink("target", Local("d/s"));
        client_ = std::make_unique<NfsClient>(daemon_.Port());
        root_ = client_->MountShare("/share");
        directory_ = client_->Lookup(root_, "d");
        file_ = client_->Lookup(directory_, "f");
        link_ = client_->Lookup(directory_, "s");
    }
    uint32_t StatusWith(Operation operation, int error, uint32_t procedure,
                        const std::string& arguments) {
        FaultPlan plan;
        plan.error = error;
        plan.operations = Bit(operation);
        plan.last = 1;
        faults_.Arm(plan);
        const RpcCall call = client_->Nfs(procedure, arguments);
        const RpcReply reply = client_->Connection().Call(call);
        EXPECT_EQ(reply.xid, call.xid);
        EXPECT_TRUE(reply.Success());
        EXPECT_EQ(faults_.Hits(), 1u) << "procedure " << procedure << " asks for no "
                                      << kOperationNames[static_cast<int>(operation)];
        faults_.Disarm();
        ++totals_.rpcCalls;
        ++totals_.faults;
        return XdrReader(reply.results).U32();
    }

    struct Row {
        uint32_t procedure;
        std::string arguments;
        std::vector<Operation> operations;
    };
    // The operations that a call is for. None of them is done when it fails, so a call can be sent
    // as often as one likes.
    std::vector<Row> Rows() const {
        SetAttributes all;
        all.mode = 0644;
        all.uid = all.gid = 0;
        all.size = 7;
        all.setAtime = all.setMtime = 1;
        const std::string file = XdrWriter().Opaque(file_).Bytes(),
                          directory = XdrWriter().Opaque(directory_).Bytes(), wish = all.Bytes();
        const auto named = [this](const char* name) { return DirectoryName(directory_, name); };
        const std::string page = XdrWriter().U64(0).U64(0).U32(8192).Bytes();
        return {
            {nfs::kGetattr, file, {kStat}},
            {nfs::kSetattr,
             file + wish + XdrWriter().Bool(false).Bytes(),
             {kStat, kChmod, kChown, kSetTimes, kTruncate}},
            {nfs::kLookup, named("f"), {kFindChild, kStat}},
            {nfs::kReadlink, XdrWriter().Opaque(link_).Bytes(), {kReadLink}},
            {nfs::kRead, ReadArguments(file_, 0, 100), {kOpen, kRead}},
            {nfs::kWrite, WriteArguments(file_, 0, kFileSync, "content"), {kStat, kOpen, kWrite}},
            {nfs::kCreate,
             named("new") + XdrWriter().U32(0).Raw(wish).Bytes(),
             {kStat, kCreateChild}},
            {nfs::kMkdir, named("new") + wish, {kCreateChildDir}},
            {nfs::kSymlink,
             named("new") + wish + XdrWriter().Opaque("t").Bytes(),
             {kStat, kCreateSymlink}},
            {nfs::kRemove, named("f"), {kStat, kUnlink}},
            {nfs::kRmdir, named("empty"), {kStat, kRemoveDir}},
            {nfs::kRename, named("f") + named("g"), {kStat, kRename}},
            {nfs::kLink, file + named("new"), {kStat, kHardLink}},
            {nfs::kReaddir, directory + page, {kOpenDir}},
            {nfs::kReaddirplus, directory + page + XdrWriter().U32(8192).Bytes(), {kOpenDir}},
            {nfs::kFsstat, directory, {kStat, kStatFs}},
            {nfs::kFsinfo, directory, {kStat}},
            {nfs::kCommit, CommitArguments(file_), {kOpen, kSyncFs}},
        };
    }

    Totals totals_;
    std::unique_ptr<NfsClient> client_;
    std::string root_, directory_, file_, link_;
};

// Linux numbers most of them as RFC 1813 does. What has no status there is told by its own number,
// ESTALE as 116 and EDQUOT as 122 too: clients that know this server take such a number for an
// errno.
TEST_F(Statuses, OfEveryErrnoInEveryProcedure) {
    std::vector<int> errors(kOthers, kOthers + std::size(kOthers));
    for (int error = 1; error <= kLinuxErrnoMost; ++error) errors.push_back(error);
    for (const Row& row : Rows())
        for (const Operation operation : row.operations)
            for (const int error : errors) {
                uint32_t expected = static_cast<uint32_t>(error);
                if (error == ENAMETOOLONG) expected = 63;
                if (error == ENOTEMPTY) expected = 66;
                EXPECT_EQ(StatusWith(operation, error, row.procedure, row.arguments), expected)
                    << "procedure " << row.procedure << ", "
                    << kOperationNames[static_cast<int>(operation)] << ", errno " << error;
                if (HasFailure()) return;
            }
    totals_.contractCalls = faults_.CallsInAll();
    totals_.Print("Statuses");
}

TEST_F(Statuses, AFailureWithoutAReasonIsInvalid) {
    for (const Row& row : Rows())
        for (const Operation operation : row.operations) {
            // A Stat that failed so counts as done, and StatFs gives its error by its result.
            if (operation == kStat || operation == kStatFs) continue;
            EXPECT_EQ(StatusWith(operation, 0, row.procedure, row.arguments), 22u)
                << "procedure " << row.procedure;
        }
}

// REMOVE and RMDIR of a missing name succeed, so that a repeated call needs no reply cache; a name
// that could not be looked for is not missing.
TEST_F(Statuses, OnlyAMissingNameIsRemovedWithoutAWord) {
    for (const uint32_t procedure : {nfs::kRemove, nfs::kRmdir}) {
        const std::string name = DirectoryName(directory_, "f");
        EXPECT_EQ(StatusWith(kFindChild, ENOENT, procedure, name), 0u);
        for (const int error : {EIO, ESTALE, EACCES, ENOMEM})
            EXPECT_EQ(StatusWith(kFindChild, error, procedure, name), static_cast<uint32_t>(error));
    }
    EXPECT_EQ(ReadFile(Local("d/f")), "content");
}

// RENAME has only one word for a source that it does not find.
TEST_F(Statuses, ASourceThatCannotBeLookedForIsMissingToRename) {
    const std::string names = DirectoryName(directory_, "f") + DirectoryName(directory_, "g");
    for (const int error : {EIO, ESTALE, EACCES, ENOENT})
        EXPECT_EQ(StatusWith(kFindChild, error, nfs::kRename, names), 2u);
}

// A handle whose object the back end does not find is stale, but where a client asks about the
// share or about data that it has written.
TEST_F(Statuses, OfAHandleWithoutAnObject) {
    for (const Row& row : Rows()) {
        const bool ofTheShare = row.procedure == nfs::kFsstat || row.procedure == nfs::kFsinfo ||
                                row.procedure == nfs::kCommit;
        for (const int error : {EIO, ENOENT, ESTALE}) {
            EXPECT_EQ(StatusWith(kGetBkEndProc, error, row.procedure, row.arguments),
                      ofTheShare ? 2u : 70u);
            EXPECT_EQ(StatusWith(kGetExportForHandle, error, row.procedure, row.arguments), 70u);
            EXPECT_EQ(StatusWith(kIsClientAllowed, error, row.procedure, row.arguments), 13u);
        }
    }
}

}  // namespace
}  // namespace oxel::test
