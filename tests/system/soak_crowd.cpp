// SPDX-License-Identifier: Apache-2.0
//
// The clients that come and go, and those that mean harm.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tests/system/soak_clients.h"

namespace oxel::test {

PassingClient::PassingClient(uint16_t port, uint64_t seed, const std::string& name,
                             const std::string& content, SoakCounts* counts)
    : port_(port), random_(seed + 2000), name_(name), content_(content), counts_(counts) {}

void PassingClient::Run(SoakEnd end) {
    do {
        NfsClient client(port_);
        if (!client.Connection().Connected()) return;
        const std::string root = client.MountShare("/share");
        const std::string file = client.Lookup(root, name_);
        const uint64_t at = Below(random_, content_.size());
        const auto count = static_cast<uint32_t>(1 + Below(random_, 70000));
        const std::string expected = content_.substr(at, count);
        for (size_t i = Below(random_, 6); i > 0; --i)
            EXPECT_EQ(Difference(expected, client.Read(file, at, count)), "");
        counts_->calls += 4;
        counts_->bytesVerified += 2 * expected.size();
        ++counts_->connections;
        const uint64_t how = Below(random_, 4);
        // With calls under way, or without.
        for (size_t i = how < 2 ? Below(random_, 8) : 0; i > 0; --i) {
            const RpcCall call = client.Nfs(nfs::kRead, ReadArguments(file, at, count));
            EXPECT_TRUE(client.Connection().Send(Record(call.Message())));
            ++counts_->calls;
        }
        // Mostly with a reset: an orderly end keeps a port of this machine for a minute.
        if (how != 3) client.Connection().Reset();
    } while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure());
}

HostileClient::HostileClient(uint16_t port, uint64_t seed, bool hardened, SoakCounts* counts)
    : port_(port), random_(seed + 3000), hardened_(hardened), counts_(counts) {
    Session session(port);
    const std::string root = session.Client().MountShare("/share");
    directory_ = MadeResults(*session.Call(nfs::kMkdir, DirectoryName(root, "hostile") +
                                                            SetAttributes().Bytes()))
                     .handle;
    file_ = MadeResults(*session.Call(nfs::kCreate, CreateArguments(directory_, "file"))).handle;
    const std::string bytes(100000, 'h');
    EXPECT_EQ(
        WriteResults(*session.Call(nfs::kWrite, WriteArguments(file_, 0, kFileSync, bytes))).status,
        0u);
}

void HostileClient::Run(SoakEnd end) {
    do {
        switch (Below(random_, 4)) {
            case 0:
                SendGarbage();
                break;
            case 1:
                SendCutRecord();
                break;
            case 2:
                LeaveRepliesUnread();
                break;
            default:
                SendMutatedCalls();
        }
        ++counts_->hostile;
        ++counts_->connections;
    } while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure());
}

void HostileClient::SendGarbage() {
    RpcConnection connection(port_);
    const std::string texts[] = {
        "GET / HTTP/1.1\r\nA: " + std::string(8000, 'a'), XdrWriter().U32(0).U32(0).Bytes(),
        UniqueBytes(random_, 1 + Below(random_, 5000)),
        hardened_ ? XdrWriter().U32(0xffffffffu).Bytes() : std::string(4, '\0')};
    (void)connection.Send(texts[Below(random_, std::size(texts))]);
    // A daemon that is not hardened waits for more: it is not left waiting.
    if (hardened_ && Below(random_, 2) == 0) (void)connection.ClosedByPeer(20);
    connection.Reset();
}

void HostileClient::SendCutRecord() {
    NfsClient client(port_);
    const std::string record = Record(
        client.Nfs(nfs::kWrite, WriteArguments(file_, 0, 0, std::string(60000, 'w'))).Message());
    (void)client.Connection().Send(record.substr(0, Below(random_, record.size())));
    client.Connection().Reset();
}

// Whole records whose arguments are not what they should be. Nothing of it makes a name, so that
// the share does not fill up.
void HostileClient::SendMutatedCalls() {
    NfsClient client(port_);
    const std::string handle = XdrWriter().Opaque(file_).Bytes();
    const std::string directory = XdrWriter().Opaque(directory_).Bytes();
    const std::pair<uint32_t, std::string> calls[] = {
        {nfs::kGetattr, handle},
        {nfs::kSetattr, SizeArguments(file_, 100000)},
        {nfs::kLookup, DirectoryName(directory_, "file")},
        {nfs::kAccess, handle + XdrWriter().U32(0x3f).Bytes()},
        {nfs::kRead, ReadArguments(file_, 0, 50000)},
        {nfs::kWrite, WriteArguments(file_, 0, kUnstable, std::string(1000, 'm'))},
        {nfs::kRemove, DirectoryName(directory_, "missing")},
        {nfs::kReaddir, directory + XdrWriter().U64(0).U64(0).U32(8192).Bytes()},
        {nfs::kReaddirplus, directory + XdrWriter().U64(0).U64(0).U32(8192).U32(8192).Bytes()},
        {nfs::kFsstat, directory},
        {nfs::kPathconf, directory},
        {nfs::kCommit, CommitArguments(file_)}};
    for (size_t i = 1 + Below(random_, 8); i > 0; --i) {
        auto [procedure, arguments] = calls[Below(random_, std::size(calls))];
        for (size_t flips = Below(random_, 4); flips > 0; --flips)
            arguments[Below(random_, arguments.size())] = static_cast<char>(random_());
        if (Below(random_, 8) == 0) arguments.resize(Below(random_, arguments.size()) / 4 * 4);
        RpcCall call = client.Nfs(procedure, arguments);
        if (Below(random_, 10) == 0) call.version = static_cast<uint32_t>(Below(random_, 6));
        if (Below(random_, 10) == 0) call.program = static_cast<uint32_t>(random_());
        if (Below(random_, 10) == 0)
            call.credentialFlavour = static_cast<uint32_t>(Below(random_, 8));
        if (hardened_ && Below(random_, 10) == 0) call.procedure = static_cast<uint32_t>(random_());
        if (!client.Connection().Send(Record(call.Message()))) return;
        ++counts_->calls;
        // Some are not answered at all: what is no call ends the connection.
        if (!client.Connection().Receive(5000)) return;
    }
    client.Connection().Reset();
}

void HostileClient::LeaveRepliesUnread() {
    NfsClient client(port_);
    std::string bytes;
    const size_t calls = hardened_ ? 30 : 3;  // three senders, which wait for the socket
    for (size_t i = 0; i < calls; ++i)
        bytes += Record(client.Nfs(nfs::kRead, ReadArguments(file_, 0, 100000)).Message());
    (void)client.Connection().Send(bytes);
    counts_->calls += calls;
    client.Connection().Reset();
}

}  // namespace oxel::test
