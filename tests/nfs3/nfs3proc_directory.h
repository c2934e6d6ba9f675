// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the procedures that make, remove and rename names need: the object behind the
// handle is a directory without names, and there is one more object that a test can put into it.
#pragma once

#include "tests/nfs3/nfs3proc_fixture.h"

namespace oxel::test {

inline constexpr const char* kWccFunction =
    "int OSStatToWccAttr(OxelCtxt*, const std::string&, wcc_attr*)";
inline const std::string kChildPath = kPath + "/new";
inline constexpr uint64_t kDirectoryInode = 4711;
inline constexpr uint64_t kChildInode = 4712;

// The context of two objects.
MATCHER_P3(IsContextOfBoth, call, object, second, "") {
    return &arg->id == &call->identity && arg->exportPtr == call->exportPtr &&
           arg->object.get() == object && arg->secondObject.get() == second;
}

class DirectoryTest : public ProcTest {
  protected:
    DirectoryTest() {
        using testing::_;
        ON_CALL(*object_, Stat).WillByDefault(StatGives(FileStat(S_IFDIR | 0755)));
        struct stat st = FileStat(S_IFREG | 0640);
        st.st_ino = kChildInode;
        ON_CALL(*child_, Stat).WillByDefault(StatGives(st));
        // The directory's object knows what its names stand for, too.
        ON_CALL(*object_, Stat(_, kChildPath, _)).WillByDefault(StatGives(st));
        ON_CALL(*object_, FindChild).WillByDefault(FailWith(ENOENT, BkEndProcPtr()));
    }
    ~DirectoryTest() override { testing::Mock::VerifyAndClear(child_.get()); }

    void NameExists() {
        ON_CALL(*object_, FindChild(testing::_, "new")).WillByDefault([this](auto&&...) {
            errno = EEXIST;
            return BkEndProcPtr(child_);
        });
    }
    // The directory's Stat fails this one time, counted from 1.
    void DirectoryStatFailsAtCall(int failing) {
        ON_CALL(*object_, Stat(testing::_, kPath, testing::_))
            .WillByDefault([this, failing](OxelCtxt*, const std::string&, struct stat* out) {
                if (++directoryStats_ == failing) return FailWith(EIO, -1)();
                *out = FileStat(S_IFDIR | 0755);
                return 0;
            });
    }
    // The attributes of the directory from before the operation, as FileStat has them.
    static void IsDirectoryBefore(const pre_op_attr& before) {
        EXPECT_EQ(TRUE, before.attributes_follow);
        EXPECT_EQ(4096u, before.attributes.size);
        EXPECT_EQ(2000u, before.attributes.mtime.seconds);
        EXPECT_EQ(0u, before.attributes.mtime.nseconds);
        EXPECT_EQ(3000u, before.attributes.ctime.seconds);
        EXPECT_EQ(0u, before.attributes.ctime.nseconds);
    }
    static void IsDirectoryAfter(const post_op_attr& after) {
        EXPECT_EQ(TRUE, after.attributes_follow);
        EXPECT_EQ(NF3DIR, after.attributes.type);
        EXPECT_EQ(kDirectoryInode, after.attributes.fileid);
    }
    static void CarriesNothing(const wcc_data& wcc) {
        EXPECT_EQ(FALSE, wcc.before.attributes_follow);
        EXPECT_EQ(FALSE, wcc.after.attributes_follow);
    }

    char name_[4] = "new";
    const nfs_fh3 childHandle_ = MakeHandle(kTestModuleType, kTestShareId, 0x22);
    boost::shared_ptr<NiceBkEndProc> child_ =
        boost::make_shared<NiceBkEndProc>(kChildPath, childHandle_);
    int directoryStats_ = 0;
};

}  // namespace oxel::test
