// SPDX-License-Identifier: Apache-2.0
//
// NFS and MOUNT arguments and results.
#include "tests/support/nfs_client.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

namespace oxel::test {

Attributes ReadAttributes(XdrReader* reader) {
    Attributes a;
    a.type = reader->U32();
    a.mode = reader->U32();
    a.nlink = reader->U32();
    a.uid = reader->U32();
    a.gid = reader->U32();
    a.size = reader->U64();
    a.used = reader->U64();
    a.rdev1 = reader->U32();
    a.rdev2 = reader->U32();
    a.fsid = reader->U64();
    a.fileid = reader->U64();
    a.atime = reader->U32();
    a.atimeNs = reader->U32();
    a.mtime = reader->U32();
    a.mtimeNs = reader->U32();
    a.ctime = reader->U32();
    a.ctimeNs = reader->U32();
    return a;
}

std::string AttributesBytes(const Attributes& a) {
    return XdrWriter()
        .U32(a.type)
        .U32(a.mode)
        .U32(a.nlink)
        .U32(a.uid)
        .U32(a.gid)
        .U64(a.size)
        .U64(a.used)
        .U32(a.rdev1)
        .U32(a.rdev2)
        .U64(a.fsid)
        .U64(a.fileid)
        .U32(a.atime)
        .U32(a.atimeNs)
        .U32(a.mtime)
        .U32(a.mtimeNs)
        .U32(a.ctime)
        .U32(a.ctimeNs)
        .Bytes();
}

Attributes ExpectedAttributes(const std::string& localPath) {
    struct stat status {};
    EXPECT_EQ(lstat(localPath.c_str(), &status), 0) << localPath;
    Attributes a;
    switch (status.st_mode & S_IFMT) {
        case S_IFREG:
            a.type = 1;
            break;
        case S_IFDIR:
            a.type = 2;
            break;
        case S_IFBLK:
            a.type = 3;
            break;
        case S_IFCHR:
            a.type = 4;
            break;
        case S_IFLNK:
            a.type = 5;
            break;
        case S_IFSOCK:
            a.type = 6;
            break;
        case S_IFIFO:
            a.type = 7;
            break;
    }
    a.mode = status.st_mode & 0xDFF;  // without the sticky bit
    a.nlink = static_cast<uint32_t>(status.st_nlink);
    a.uid = status.st_uid;
    a.gid = status.st_gid;
    const bool directory = a.type == 2;
    a.size = directory ? 4096 : static_cast<uint64_t>(status.st_size);
    a.used = directory ? 4096 : static_cast<uint64_t>(status.st_blocks) * status.st_blksize;
    a.fsid = 2051;
    a.fileid = status.st_ino;
    a.atime = static_cast<uint32_t>(status.st_atime);
    a.mtime = static_cast<uint32_t>(status.st_mtime);
    a.ctime = static_cast<uint32_t>(status.st_ctime);
    return a;
}

std::string SetAttributes::Bytes() const {
    XdrWriter writer;
    for (int64_t value : {mode, uid, gid}) {
        writer.Bool(value >= 0);
        if (value >= 0) writer.U32(static_cast<uint32_t>(value));
    }
    writer.Bool(size >= 0);
    if (size >= 0) writer.U64(static_cast<uint64_t>(size));
    writer.U32(setAtime);
    if (setAtime == 2) writer.U32(atime).U32(0);
    writer.U32(setMtime);
    if (setMtime == 2) writer.U32(mtime).U32(0);
    return writer.Bytes();
}

std::string DirectoryName(const std::string& directory, const std::string& name) {
    return XdrWriter().Opaque(directory).Opaque(name).Bytes();
}

std::string ReadArguments(const std::string& handle, uint64_t offset, uint32_t count) {
    return XdrWriter().Opaque(handle).U64(offset).U32(count).Bytes();
}

std::string WriteArguments(const std::string& handle, uint64_t offset, uint32_t stable,
                           const std::string& data) {
    return XdrWriter()
        .Opaque(handle)
        .U64(offset)
        .U32(static_cast<uint32_t>(data.size()))
        .U32(stable)
        .Opaque(data)
        .Bytes();
}

RpcCall NfsClient::Nfs(uint32_t procedure, const std::string& arguments) {
    RpcCall call;
    call.xid = ++xid_;
    call.procedure = procedure;
    call.credentialFlavour = kAuthUnix;
    call.credential = UnixCredential(uid_, gid_);
    call.arguments = arguments;
    return call;
}

RpcCall NfsClient::Mount(uint32_t procedure, const std::string& arguments, uint32_t version) {
    RpcCall call = Nfs(procedure, arguments);
    call.program = kMountProgram;
    call.version = version;
    return call;
}

std::string NfsClient::Results(const RpcCall& call) {
    RpcReply reply = connection_.Call(call);
    EXPECT_TRUE(reply.Success()) << "procedure " << call.procedure << ": accept_stat "
                                 << reply.acceptStat;
    return reply.results;
}

uint32_t NfsClient::Status(const RpcCall& call) {
    return XdrReader(Results(call)).U32();
}

std::string NfsClient::MountShare(const std::string& path, uint32_t* status) {
    XdrReader reader(Results(Mount(mnt::kMnt, XdrWriter().Opaque(path).Bytes())));
    uint32_t result = reader.U32();
    if (status)
        *status = result;
    else
        EXPECT_EQ(result, 0u) << "MNT of " << path;
    return result == 0 ? reader.Opaque() : "";
}

std::string NfsClient::Lookup(const std::string& directory, const std::string& name,
                              uint32_t* status) {
    XdrReader reader(Results(Nfs(nfs::kLookup, DirectoryName(directory, name))));
    uint32_t result = reader.U32();
    if (status)
        *status = result;
    else
        EXPECT_EQ(result, 0u) << "LOOKUP of " << name;
    return result == 0 ? reader.Opaque() : "";
}

std::string NfsClient::Walk(std::string directory, const std::string& path) {
    for (size_t from = 0; from <= path.size();) {
        size_t end = std::min(path.find('/', from), path.size());
        directory = Lookup(directory, path.substr(from, end - from));
        from = end + 1;
    }
    return directory;
}

Attributes NfsClient::GetAttributes(const std::string& handle, uint32_t* status) {
    XdrReader reader(Results(Nfs(nfs::kGetattr, XdrWriter().Opaque(handle).Bytes())));
    uint32_t result = reader.U32();
    if (status)
        *status = result;
    else
        EXPECT_EQ(result, 0u) << "GETATTR";
    return result == 0 ? ReadAttributes(&reader) : Attributes();
}

std::string NfsClient::Read(const std::string& handle, uint64_t offset, uint32_t count, bool* eof,
                            uint32_t* status) {
    XdrReader reader(Results(Nfs(nfs::kRead, ReadArguments(handle, offset, count))));
    uint32_t result = reader.U32();
    if (status)
        *status = result;
    else
        EXPECT_EQ(result, 0u) << "READ";
    if (reader.Bool()) ReadAttributes(&reader);
    if (result != 0) return "";
    uint32_t read = reader.U32();
    bool end = reader.Bool();
    if (eof) *eof = end;
    std::string data = reader.Opaque();
    EXPECT_EQ(read, data.size());
    EXPECT_EQ(reader.Left(), 0u);
    return data;
}

DirectoryPage ReadPage(const std::string& results, bool plus) {
    DirectoryPage page;
    XdrReader reader(results);
    page.status = reader.U32();
    page.hasAttributes = reader.Bool();
    if (page.hasAttributes) page.attributes = ReadAttributes(&reader);
    if (page.status != 0) return page;
    page.verifier = reader.U64();
    while (reader.Bool()) {
        DirectoryEntry entry;
        entry.fileid = reader.U64();
        entry.name = reader.Opaque();
        entry.cookie = reader.U64();
        if (plus) {
            entry.hasAttributes = reader.Bool();
            if (entry.hasAttributes) entry.attributes = ReadAttributes(&reader);
            entry.hasHandle = reader.Bool();
            if (entry.hasHandle) entry.handle = reader.Opaque();
        }
        page.entries.push_back(std::move(entry));
    }
    page.eof = reader.Bool();
    EXPECT_EQ(reader.Left(), 0u);
    return page;
}

DirectoryPage NfsClient::ReadDirectory(const std::string& handle, uint64_t cookie, uint32_t count) {
    return ReadPage(Results(Nfs(nfs::kReaddir,
                                XdrWriter().Opaque(handle).U64(cookie).U64(0).U32(count).Bytes())),
                    false);
}

DirectoryPage NfsClient::ReadDirectoryPlus(const std::string& handle, uint64_t cookie,
                                           uint32_t dircount, uint32_t maxcount) {
    return ReadPage(
        Results(
            Nfs(nfs::kReaddirplus,
                XdrWriter().Opaque(handle).U64(cookie).U64(0).U32(dircount).U32(maxcount).Bytes())),
        true);
}

}  // namespace oxel::test
