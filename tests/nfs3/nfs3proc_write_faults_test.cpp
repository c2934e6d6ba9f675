// SPDX-License-Identifier: Apache-2.0
//
// Every procedure that modifies a share against a back end whose N-th call fails, or throws, for
// every N until the procedure succeeds: which status, which attributes, which message, and that
// every descriptor was closed exactly once. And such procedures on many threads at once.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "tests/nfs3/faulty_back_end.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAreArray;

namespace {

const std::string kStatText = "Error: Failed to stat [/srv/share/dir/name]. [5:Input/output error]";
const std::string kChildStatText =
    "Error: Failed to stat [/srv/share/dir/name/a]. [5:Input/output error]";
const std::string kNoExport = "Export not found for [handle text].";
const std::string kReadOnly = "Write Access denied for share [/srv/share]";
const std::string kRefused = "This object is not accessible to client [192.0.2.7]";
const std::string kApplyChmodText =
    "Error: Failed to chmod [/srv/share/dir/name/a]. [Input/output error]";
const std::string kApplyStatText =
    "Error: Failed to stat [/srv/share/dir/name/a]. [Input/output error]";
const std::string kChownText =
    "Error: Create failed. Failed to do chown . Error [Input/output error]";
const std::string kNoDirectory =
    "Error: Creating [a]. Parent Directory Not Found. FH [] IP [192.0.2.7]";
const std::string kNothingToRemoveIn =
    "Error: Removing [a]. Parent Directory Not Found. FH [] IP [192.0.2.7]";
const std::string kWccText = "Error: [5:Input/output error]";

// What the flags of a reply announce.
std::string Follow(const wcc_data& wcc) {
    return std::string(wcc.before.attributes_follow ? " before" : "") +
           (wcc.after.attributes_follow ? " after" : "");
}

template <typename Result>
std::string Made(const Result& result) {
    if (result.status != NFS3_OK) return Follow(result.resfail.dir_wcc);
    return std::string(result.resok.obj.handle_follows ? " handle" : "") +
           (result.resok.obj_attributes.attributes_follow ? " object" : "") +
           Follow(result.resok.dir_wcc);
}

class WriteFaults : public HandlerFaults {
  protected:
    WriteFaults() {
        ON_CALL(*module_, GetBkEndProc)
            .WillByDefault([this](ExportPtr&, const nfs_fh3& handle) -> BkEndProcPtr {
                if (faults_.Hits("GetBkEndProc")) return BkEndProcPtr();
                if (handle.objectId[0] == fileHandle_.objectId[0]) return child_;
                if (handle.objectId[0] == toHandle_.objectId[0]) return parent_;
                return object_;
            });
        ON_CALL(*object_, FindChild).WillByDefault([this](auto&&...) -> BkEndProcPtr {
            if (faults_.Hits("FindChild")) return BkEndProcPtr();
            errno = exists_ ? EEXIST : ENOENT;
            return exists_ ? BkEndProcPtr(child_) : BkEndProcPtr();
        });
        ON_CALL(*object_, Write)
            .WillByDefault(
                [this](OxelCtxt*, int, const void*, uint64_t, uint32_t count, stable_how) {
                    if (faults_.Hits("Write")) return ssize_t{-1};
                    return static_cast<ssize_t>(std::min(count, 6u));  // short
                });
        const auto made = [this](const char* operation) {
            return [this, operation](auto&&...) -> BkEndProcPtr {
                return faults_.Hits(operation) ? BkEndProcPtr() : BkEndProcPtr(child_);
            };
        };
        const auto result = [this](const char* operation) {
            return [this, operation](auto&&...) { return faults_.Hits(operation) ? -1 : 0; };
        };
        ON_CALL(*object_, CreateChild).WillByDefault(made("CreateChild"));
        ON_CALL(*object_, CreateChildDir).WillByDefault(made("CreateChildDir"));
        ON_CALL(*object_, CreateSymlink).WillByDefault([this](auto&&...) {
            if (faults_.Hits("CreateSymlink")) return -1;
            exists_ = true;
            return 0;
        });
        ON_CALL(*object_, SyncFs).WillByDefault(result("SyncFs"));
        ON_CALL(*object_, HardLink).WillByDefault(result("HardLink"));
        ON_CALL(*child_, Unlink).WillByDefault(result("Unlink"));
        ON_CALL(*child_, RemoveDir).WillByDefault(result("RemoveDir"));
        ON_CALL(*child_, Rename).WillByDefault(result("Rename"));
        ON_CALL(*child_, GetFileHandle).WillByDefault([this](nfs_fh3* out) {
            faults_.Passes("GetFileHandle");
            *out = fileHandle_;
        });
    }

    // The rest of the arguments of a procedure; the first handle stands there already.
    void Fill(CallInfo3& call) {
        CallArguments3& args = call.arguments();
        const set_attrib mode{TRUE, 0640};
        switch (call.procedure) {
            case 7:
                args.write.count = 10;
                break;
            case 8:
                args.create.where.name = name_;
                args.create.how.mode = UNCHECKED;
                args.create.how.obj_attributes.mode = mode;
                break;
            case 9:
                args.mkdir.where.name = name_;
                args.mkdir.attributes.mode = mode;
                break;
            case 10:
                args.symlink.where.name = name_;
                args.symlink.symlink.symlink_data = strdup("target");  // the release frees it
                args.symlink.symlink.symlink_attributes.mode = mode;
                break;
            case 11:
                args.mknod.where.name = name_;
                args.mknod.what.type = NF3FIFO;
                break;
            case 12:
            case 13:
                args.remove.object.name = name_;
                break;
            case 14:
                args.rename.from.name = name_;
                args.rename.to = {toHandle_, name_};
                break;
            case 15:
                args.link.file = fileHandle_;
                args.link.link = {handle_, name_};
                break;
        }
    }
    std::vector<Outcome> FailEach(int procedure, bool exists, std::function<std::string()> sent) {
        return RunAll(
            procedure,
            [this, exists] {
                exists_ = exists;
                Fill(call_);
            },
            sent);
    }
    int ThrowEach(int procedure, bool exists) {
        return ThrowAll(procedure, [this, exists] {
            exists_ = exists;
            Fill(call_);
        });
    }

    const nfs_fh3 fileHandle_ = MakeHandle(kTestModuleType, kTestShareId, 0x22);
    const nfs_fh3 toHandle_ = MakeHandle(kTestModuleType, kTestShareId, 0x33);
    std::atomic<bool> exists_{false};  // the name "a"
};

TEST_F(WriteFaults, Write) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kStaleText},
        {"Stat", 5, "", kStatText},
        {"Open", 5, "", "Error: Failed to open [name] for writing. Error [Input/output error]"},
        {"Write", 5, "", "Error: Failed to write to [name]. Error [Input/output error]"},
        {"Write", 5, "", "Error: Failed to write to [name]. Error [Input/output error]"},
        {"Stat", 0, "", kStatText},
        {"", 0, " after", ""},
    };
    const auto sent = [this] { return Follow(call_.result.write.resok.file_wcc); };
    EXPECT_THAT(FailEach(7, false, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Commit) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 2, "", ""},
        {"Stat", 0, "", kStatText},
        {"Open", 5, "", "Error: Failed to open [name] for reading. Error [Input/output error]"},
        {"SyncFs", 5, "",
         "Error: Failed to sync data for filesystem containing [name]. Error [Input/output error]"},
        {"Stat", 0, " before", kStatText},
        {"", 0, " before after", ""},
    };
    const auto sent = [this] { return Follow(call_.result.commit.resok.file_wcc); };
    EXPECT_THAT(FailEach(21, false, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Create) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kNoDirectory},
        {"Stat", 5, "", kStatText},
        {"FindChild", 0, " handle object before after", ""},
        {"CreateChild", 5, "", "Error: Create failed. Error [Input/output error]"},
        {"Chmod", 0, " handle object before after", kApplyChmodText},
        {"Stat", 0, " handle object before after", kApplyStatText},
        {"Chown", 5, "", kChownText},
        {"Stat", 0, " handle before after", kChildStatText},
        {"Stat", 0, " handle before after", kStatText},
        {"", 0, " handle object before after", ""},
    };
    const auto sent = [this] { return Made(call_.result.create); };
    EXPECT_THAT(FailEach(8, false, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Mkdir) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "",
         "Error: Creating [a. Parent Directory Not Found. FH [] IP [192.0.2.7]"},
        {"FindChild", 0, " handle object", ""},
        {"CreateChildDir", 5, "", "Error: CreateChildDir failed. Error [Input/output error]"},
        {"Chmod", 0, " handle object", kApplyChmodText},
        {"Stat", 0, " handle object", kApplyStatText},
        {"Chown", 5, "", kChownText},
        {"Stat", 0, " handle",
         "Error: Failed to stat(/srv/share/dir/name/a). [5:Input/output error]"},
        {"", 0, " handle object", ""},
    };
    const auto sent = [this] { return Made(call_.result.mkdir); };
    EXPECT_THAT(FailEach(9, false, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Symlink) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kNoDirectory},
        {"Stat", 5, "", kStatText},
        {"FindChild", 0, " handle object before after", ""},
        {"CreateSymlink", 5, " before",
         "Error: Failed to create symlink [/srv/share/dir/name/a] to [target]. [Input/output "
         "error]"},
        {"FindChild", 5, " before", ""},
        {"Chmod", 0, " handle object before after", kApplyChmodText},
        {"Stat", 0, " handle object before after", kApplyStatText},
        {"Stat", 0, " handle before after", kChildStatText},
        {"Stat", 0, " handle object before",
         "Error: Failed to stat(/srv/share/dir/name). [5:Input/output error]"},
        {"", 0, " handle object before after", ""},
    };
    const auto sent = [this] { return Made(call_.result.symlink); };
    EXPECT_THAT(FailEach(10, false, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Mknod) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"", 10004, "", ""},
    };
    const auto sent = [this] { return Made(call_.result.mknod); };
    EXPECT_THAT(FailEach(11, false, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Remove) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kNothingToRemoveIn},
        {"Stat", 5, "", kWccText},
        {"FindChild", 5, " before",
         "Error: Failed unlink [/srv/share/dir/name/a] [5:Input/output error]"},
        {"Unlink", 5, " before",
         "Error: Failed unlink [/srv/share/dir/name/a] [5:Input/output error]"},
        {"Stat", 0, " before after", kStatText},
        {"", 0, " before after", ""},
    };
    const auto sent = [this] { return Follow(call_.result.remove.resok.dir_wcc); };
    EXPECT_THAT(FailEach(12, true, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Rmdir) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kNothingToRemoveIn},
        {"Stat", 5, "", kWccText},
        {"FindChild", 5, " before after",
         "Error: Failed to delete [/srv/share/dir/name/a] [5:Input/output error]"},
        {"RemoveDir", 5, " before after",
         "Error: Failed to delete [/srv/share/dir/name/a] [5:Input/output error]"},
        {"Stat", 0, " before", kStatText},
        {"", 0, " before after", ""},
    };
    const auto sent = [this] { return Follow(call_.result.rmdir.resok.dir_wcc); };
    EXPECT_THAT(FailEach(13, true, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Rename) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "|", kNoExport},
        {"IsWritable", 13, "|", kReadOnly},
        {"IsClientAllowed", 13, "|", kRefused},
        {"GetExportForHandle", 70, "|", kNoExport},
        {"IsWritable", 13, "|", kReadOnly},
        {"IsClientAllowed", 13, "|", kRefused},
        {"GetBkEndProc", 70, "|",
         "Error: Renaming [a]. 'from' directory not found. FH [] IP [192.0.2.7]"},
        {"GetBkEndProc", 70, "|",
         "Error: Renaming [a]. 'to' directory not found. FH [] IP [192.0.2.7]"},
        {"Stat", 5, "|", kWccText},
        {"FindChild", 2, "|", "Error: Failed to rename. Source [a] not present."},
        {"Stat", 5, "|", kWccText},
        {"Rename", 5, "|", "Error: Failed to rename. [Input/output error]."},
        {"Stat", 0, " before| before after", kStatText},
        {"Stat", 0, " before after| before",
         "Error: Failed to stat [/srv/share/dir]. [5:Input/output error]"},
        {"", 0, " before after| before after", ""},
    };
    const auto sent = [this] {
        const RENAME3resok& resok = call_.result.rename.resok;
        return Follow(resok.fromdir_wcc) + "|" + Follow(resok.todir_wcc);
    };
    EXPECT_THAT(FailEach(14, true, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, Link) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", kReadOnly},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "",
         "Error: Creating link [a]. Parent directory not found. FH [] IP [192.0.2.7]"},
        {"GetBkEndProc", 70, "", "Error: Target is not found. FH [] IP [192.0.2.7]"},
        {"Stat", 5, "", kStatText},
        {"HardLink", 5, " before after",
         "Error: Failed to create hardlink [/srv/share/dir/name/a] to [/srv/share/dir/name/a]. "
         "[Input/output error]"},
        {"Stat", 0, " before after", kChildStatText},
        {"Stat", 0, " file before", kStatText},
        {"", 0, " file before after", ""},
    };
    const auto sent = [this] {
        const LINK3resok& resok = call_.result.link.resok;
        return (resok.file_attributes.attributes_follow ? " file" : "") + Follow(resok.linkdir_wcc);
    };
    EXPECT_THAT(FailEach(15, true, sent), ElementsAreArray(expected));
}

TEST_F(WriteFaults, ExceptionInWriteOrCommitClosesTheDescriptorOnce) {
    // The share, the text of its handle, its rules (two), the object; Stat, Open, the data, Stat.
    EXPECT_EQ(5 + 2 + 2 + 1, ThrowEach(7, false));
    EXPECT_EQ(5 + 2 + 1 + 1, ThrowEach(21, false));
}

TEST_F(WriteFaults, ExceptionInTheOthersReachesTheCaller) {
    // CREATE, MKDIR, SYMLINK: the text of the handle once more.
    EXPECT_EQ(6 + 9, ThrowEach(8, false));
    EXPECT_EQ(6 + 7, ThrowEach(9, false));
    EXPECT_EQ(6 + 9, ThrowEach(10, false));
    EXPECT_EQ(5, ThrowEach(11, false));
    EXPECT_EQ(5 + 4, ThrowEach(12, true));
    EXPECT_EQ(5 + 4, ThrowEach(13, true));
    EXPECT_EQ(10 + 6, ThrowEach(14, true));
    EXPECT_EQ(7 + 4, ThrowEach(15, true));
}

TEST_F(WriteFaults, HandlersRunOnManyThreadsAtOnce) {
    oxel::LogWriter::SetLevel(0);
    exists_ = true;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            CallInfo3 call;
            for (int round = 0; round < 20; ++round) {
                for (int procedure : {7, 8, 9, 12, 13, 14, 15, 21}) {
                    Fresh(call, procedure);
                    Fill(call);
                    EXPECT_EQ(TRUE, call.row->handler(&call));
                    EXPECT_EQ(NFS3_OK, call.result.getattr.status) << call.row->name;
                    if (call.row->release != nullptr) call.row->release(&call);
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EverythingWasClosedOnce();
}

}  // namespace
