// SPDX-License-Identifier: Apache-2.0
//
// What runs beside the integrity clients in the long mixed load: clients that use every procedure
// on names and verify each answer, clients that come and go, and clients that send what is no call.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "tests/system/integrity_client.h"

namespace oxel::test {

using SoakEnd = std::chrono::steady_clock::time_point;
// What every client of the load counts into.
struct SoakCounts {
    std::atomic<uint64_t> calls{0}, connections{0}, bytesVerified{0}, hostile{0}, reloads{0};
};

// All procedures of NFS and MOUNT on a directory of its own, whose contents it knows.
class TreeClient {
  public:
    TreeClient(uint16_t port, uint64_t seed, unsigned number, SoakCounts* counts);
    void Run(SoakEnd end);
    // What the daemon shows and what is on the disk is what the client has made.
    void ExpectEverythingAsMade(const std::string& share);

  private:
    struct Entry {
        uint32_t type;        // ftype3
        std::string content;  // of a file; of a symbolic link the target
        uint64_t fileid = 0;
    };
    using Entries = std::map<std::string, Entry>;

    void Step();
    void Make(const std::string& name);
    void Take(const std::string& name);
    void Move(const std::string& name, const std::string& other);
    void Link(const std::string& name, const std::string& other);
    void Look(const std::string& name);
    void Fill(const std::string& name);
    void List();
    void Ask();
    void Mount();
    // The results of a call that must be answered; its status must be the expected one.
    std::string Call(uint32_t procedure, const std::string& arguments, uint32_t status,
                     const char* what);
    std::string HandleOf(const std::string& name);
    // Another name of a file sees what is written through the first one.
    void Filled(uint64_t fileid, const std::string& content);

    Session session_;
    Random random_;
    SoakCounts* const counts_;
    const std::string directoryName_;
    std::string root_, directory_;
    Entries entries_;
};

// Comes, makes some calls, whose answers it verifies, and goes in one of three ways.
class PassingClient {
  public:
    PassingClient(uint16_t port, uint64_t seed, const std::string& name, const std::string& content,
                  SoakCounts* counts);
    void Run(SoakEnd end);

  private:
    const uint16_t port_;
    Random random_;
    const std::string name_, content_;
    SoakCounts* const counts_;
};

// What a client can do that holds nobody up and uses nothing up by design: a daemon that is not
// hardened waits for the rest of a record, and keeps a call record for each unknown procedure.
class HostileClient {
  public:
    HostileClient(uint16_t port, uint64_t seed, bool hardened, SoakCounts* counts);
    void Run(SoakEnd end);

  private:
    void SendGarbage();
    void SendCutRecord();
    void SendMutatedCalls();
    void LeaveRepliesUnread();

    const uint16_t port_;
    Random random_;
    const bool hardened_;
    SoakCounts* const counts_;
    std::string file_, directory_;
};

}  // namespace oxel::test
