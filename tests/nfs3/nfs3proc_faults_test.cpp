// SPDX-License-Identifier: Apache-2.0
//
// Every handler against a back end whose N-th call fails, for every N until the procedure succeeds:
// which status, which attributes, which message, and that every descriptor and every directory
// stream was closed exactly once.
#include "tests/nfs3/faulty_back_end.h"

using namespace oxel::test;
using testing::ElementsAreArray;

namespace {

const std::string kStatText = "Error: Failed to stat [/srv/share/dir/name]. [5:Input/output error]";
const std::string kNoExport = "Export not found for [handle text].";
const std::string kRefused = "This object is not accessible to client [192.0.2.7]";

std::string Follow(bool_t follows) {
    return follows ? "attributes" : "";
}

TEST_F(HandlerFaults, Getattr) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kStaleText},
        {"Stat", 5, "", kStatText},
        {"", 0, "", ""},
    };
    EXPECT_THAT(RunAll(
                    1, [] {}, [] { return ""; }),
                ElementsAreArray(expected));
}

TEST_F(HandlerFaults, Setattr) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsWritable", 13, "", "Write Access denied for share [/srv/share]"},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kStaleText},
        {"Stat", 5, "", kStatText},
        {"Chmod", 5, "before",
         "Error: Failed to chmod [/srv/share/dir/name]. [Input/output error]"},
        {"Chown", 5, "before",
         "Error: Failed to chown [/srv/share/dir/name]. [Input/output error]"},
        {"Stat", 5, "before", "Error: Failed to stat [/srv/share/dir/name]. [Input/output error]"},
        {"SetTimes", 5, "before", "Error: Failed to set time stamps. Error [Input/output error]"},
        {"Truncate", 5, "before", "Error: Failed to truncate. Error [Input/output error]"},
        {"Stat", 0, "before", "Error: Failed to stat(). [5:Input/output error]"},
        {"", 0, "before after", ""},
    };
    const auto sent = [this] {
        const wcc_data& wcc = call_.result.setattr.resok.obj_wcc;
        return std::string(wcc.before.attributes_follow ? "before" : "") +
               (wcc.after.attributes_follow ? " after" : "");
    };
    EXPECT_THAT(RunAll(
                    2, [this] { SetattrArguments(); }, sent),
                ElementsAreArray(expected));
}

TEST_F(HandlerFaults, Lookup) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", "Error: Looking for [a]. Stale File Handle. FH [] IP [192.0.2.7]"},
        {"FindChild", 5, "", "FindChild() failed [a] under [/srv/share/dir/name]. err [5]"},
        {"Stat", 5, "", "stat() failed. [/srv/share/dir/name/a] err [5]"},
        {"Stat", 0, "object directory", kStatText},
        {"", 0, "object directory", ""},
    };
    const auto sent = [this]() -> std::string {
        const LOOKUP3res& result = call_.result.lookup;
        if (result.status != NFS3_OK)
            return Follow(result.resfail.dir_attributes.attributes_follow);
        return std::string(result.resok.obj_attributes.attributes_follow ? "object" : "") +
               (result.resok.dir_attributes.attributes_follow ? " directory" : "");
    };
    EXPECT_THAT(RunAll(
                    3, [this] { LookupArguments(); }, sent),
                ElementsAreArray(expected));
}

TEST_F(HandlerFaults, Access) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport}, {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kStaleText},      {"Access", 0, "attributes 3e", ""},
        {"Access", 0, "attributes 1d", ""},        {"Access", 0, "attributes 23", ""},
        {"Stat", 0, "attributes 3f", kStatText},   {"", 0, "attributes 3f", ""},
    };
    const auto sent = [this]() -> std::string {
        const ACCESS3res& result = call_.result.access;
        if (result.status != NFS3_OK)
            return Follow(result.resfail.obj_attributes.attributes_follow);
        char text[40];
        snprintf(text, sizeof text, "%s %x",
                 Follow(result.resok.obj_attributes.attributes_follow).c_str(),
                 result.resok.access);
        return text;
    };
    EXPECT_THAT(RunAll(
                    4, [] {}, sent),
                ElementsAreArray(expected));
}

TEST_F(HandlerFaults, Readlink) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kStaleText},
        {"ReadLink", 5, "attributes",
         "Error: Failed to get target of softlink [name]. [5:Input/output error]"},
        {"Stat", 0, " t", kStatText},
        {"", 0, "attributes t", ""},
    };
    const auto sent = [this]() -> std::string {
        const READLINK3res& result = call_.result.readlink;
        if (result.status != NFS3_OK)
            return Follow(result.resfail.symlink_attributes.attributes_follow);
        return Follow(result.resok.symlink_attributes.attributes_follow) + " " + result.resok.data;
    };
    EXPECT_THAT(RunAll(
                    5, [] {}, sent),
                ElementsAreArray(expected));
}

TEST_F(HandlerFaults, Read) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kStaleText},
        {"Open", 5, "", "Error: Failed to open [name]. [Input/output error]"},
        {"Read", 5, "", "Error: Failed to read [10] bytes from [name]. [Input/output error]"},
        {"", 0, "rrrrrrrrrr", ""},
    };
    const auto sent = [this]() -> std::string {
        const READ3res& result = call_.result.read;
        if (result.status != NFS3_OK)
            return Follow(result.resfail.file_attributes.attributes_follow);
        return Follow(result.resok.file_attributes.attributes_follow) +
               std::string(result.resok.data.data_val, result.resok.data.data_len);
    };
    EXPECT_THAT(RunAll(
                    6, [this] { ReadArguments(call_); }, sent),
                ElementsAreArray(expected));
}

const std::string kOpenDirText = "Error: Failed to open directory [name]. [Input/output error]";
const std::string kDirStatText = "Error: Failed to stat(name). [5:Input/output error]";

TEST_F(HandlerFaults, Readdir) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", "Error: Stale File Handle. [] IP [192.0.2.7]"},
        {"OpenDir", 5, "", kOpenDirText},
        {"ReadDir", 0, "attributes eof", ""},
        {"ReadDir", 0, "attributes . eof", ""},
        {"GetParent", 0, "attributes . .. a eof", ""},
        {"ReadDir", 0, "attributes . .. eof", ""},
        {"FindChild", 0, "attributes . .. eof", ""},
        {"ReadDir", 0, "attributes . .. a eof", ""},
        {"Stat", 0, " . .. a eof", kDirStatText},
        {"", 0, "attributes . .. a eof", ""},
    };
    const auto sent = [this]() -> std::string {
        const READDIR3res& result = call_.result.readdir;
        if (result.status != NFS3_OK)
            return Follow(result.resfail.dir_attributes.attributes_follow);
        std::string text = Follow(result.resok.dir_attributes.attributes_follow);
        for (const dirlist3* link = &result.resok.reply; link->present; link = &link->entry->next)
            text.append(" ").append(link->entry->name);
        return text + (result.resok.eof ? " eof" : "");
    };
    EXPECT_THAT(RunAll(
                    16, [this] { ReaddirArguments(); }, sent),
                ElementsAreArray(expected));
}

TEST_F(HandlerFaults, Readdirplus) {
    const auto failedName = [](const char* name) {
        return std::string("Error: Failed to stat(/srv/share/dir/name/") + name +
               "). [5:Input/output error]";
    };
    // A name in parentheses goes without attributes.
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kStaleText},
        {"OpenDir", 5, "", kOpenDirText},
        {"ReadDir", 0, "attributes eof", ""},
        {"Stat", 0, "attributes (.) .. a eof", failedName(".")},
        {"ReadDir", 0, "attributes . eof", ""},
        {"GetParent", 0, "attributes . .. a eof", ""},
        {"Stat", 0, "attributes . (..) a eof", failedName("..")},
        {"ReadDir", 0, "attributes . .. eof", ""},
        {"FindChild", 0, "attributes . .. eof",
         "Error: Failed to find child [a] under [/srv/share/dir/name]."},
        {"Stat", 0, "attributes . .. (a) eof", failedName("a")},
        {"ReadDir", 0, "attributes . .. a eof", ""},
        {"Stat", 0, " . .. a eof", kDirStatText},
        {"", 0, "attributes . .. a eof", ""},
    };
    const auto sent = [this]() -> std::string {
        const READDIRPLUS3res& result = call_.result.readdirplus;
        if (result.status != NFS3_OK)
            return Follow(result.resfail.dir_attributes.attributes_follow);
        std::string text = Follow(result.resok.dir_attributes.attributes_follow);
        for (const dirlistplus3* link = &result.resok.reply; link->present;
             link = &link->entry->next) {
            const std::string name = link->entry->name;
            text += link->entry->name_attributes.attributes_follow ? " " + name : " (" + name + ")";
        }
        return text + (result.resok.eof ? " eof" : "");
    };
    EXPECT_THAT(RunAll(
                    17, [this] { ReaddirplusArguments(call_); }, sent),
                ElementsAreArray(expected));
}

const std::string kRootGone = "Error: FS Root obect is not found.";
const std::string kRootStat = "Error: Failed to stat(). [5:Input/output error]";

TEST_F(HandlerFaults, Fsstat) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 2, "", kRootGone},
        {"Stat", 5, "", kRootStat},
        {"StatFs", 5, "", "Error: Failed to statfs(). [5:Input/output error]"},
        {"", 0, "attributes", ""},
    };
    const auto sent = [this] {
        return Follow(call_.result.fsstat.resok.obj_attributes.attributes_follow);
    };
    EXPECT_THAT(RunAll(
                    18, [] {}, sent),
                ElementsAreArray(expected));
}

TEST_F(HandlerFaults, Fsinfo) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 2, "", kRootGone},
        {"Stat", 5, "", kRootStat},
        {"", 0, "attributes", ""},
    };
    const auto sent = [this] {
        return Follow(call_.result.fsinfo.resok.obj_attributes.attributes_follow);
    };
    EXPECT_THAT(RunAll(
                    19, [] {}, sent),
                ElementsAreArray(expected));
}

TEST_F(HandlerFaults, Pathconf) {
    const Outcome expected[] = {
        {"GetExportForHandle", 70, "", kNoExport},
        {"IsClientAllowed", 13, "", kRefused},
        {"GetBkEndProc", 70, "", kStaleText},
        {"PathConf", 0, "attributes ffffffff 0 0 0", ""},
        {"PathConf", 0, "attributes 0 ffffffff 0 0", ""},
        {"PathConf", 0, "attributes 0 0 ffffffff 0", ""},
        {"PathConf", 0, "attributes 0 0 0 ffffffff", ""},
        {"Stat", 0, " 0 0 0 0", kStatText},
        {"", 0, "attributes 0 0 0 0", ""},
    };
    const auto sent = [this]() -> std::string {
        const PATHCONF3res& result = call_.result.pathconf;
        if (result.status != NFS3_OK)
            return Follow(result.resfail.obj_attributes.attributes_follow);
        char text[80];
        snprintf(text, sizeof text, "%s %x %x %x %x",
                 Follow(result.resok.obj_attributes.attributes_follow).c_str(),
                 result.resok.linkmax, result.resok.name_max, result.resok.no_trunc,
                 result.resok.chown_restricted);
        return text;
    };
    EXPECT_THAT(RunAll(
                    20, [] {}, sent),
                ElementsAreArray(expected));
}

}  // namespace
