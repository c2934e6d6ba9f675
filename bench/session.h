// SPDX-License-Identifier: Apache-2.0
//
// Calls one after the other over one connection, for what stands around the load: mounting,
// looking names up, making and removing directories, reading back.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "bench/wire.h"

namespace bench {

// Connects to a port of 127.0.0.1; throws when nobody listens.
oxel::UniqueFd Connect(uint16_t port);
// The address that later connections come from ("127.0.0.2"): servers tell clients apart by it.
// Throws when it is none.
void ConnectFrom(const std::string& address);

struct Entry {
    std::string name, handle;
    bool isDirectory = false;
};

class Session {
  public:
    explicit Session(uint16_t port);

    // The result of a call, behind the reply's header; valid until the next call.
    Reader Call(uint32_t program, uint32_t procedure, const std::string& arguments);
    // The same for NFS, with the status read; any but NFS3_OK throws.
    Reader Nfs(Procedure procedure, const std::string& arguments, const char* what);

    // Walks from a directory along a path below it and returns the handle of what is there.
    std::string Lookup(std::string handle, std::string_view path);
    std::string MakeDirectory(const std::string& directory, const std::string& name);
    void Remove(const std::string& directory, const std::string& name, Procedure procedure);
    std::string MakeFile(const std::string& directory, const std::string& name);
    uint64_t SizeOf(const std::string& handle);
    // All of a directory but "." and "..".
    std::vector<Entry> List(const std::string& directory);

  private:
    oxel::UniqueFd socket_;
    std::string record_;
    uint32_t xid_;
};

// Mounts a share: the handle of its root.
std::string MountShare(uint16_t mountPort, const std::string& share);

}  // namespace bench
