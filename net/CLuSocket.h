// SPDX-License-Identifier: Apache-2.0
//
// A TCP socket, and binding one to whatever port is open.
#pragma once

#include <string>

#include "net/CLuIPAddr.h"

// An operation's failure: a code (an errno, or a number of the caller's) and words.
class CLuError {
  public:
    CLuError() = default;  // no error
    CLuError(int code, std::string text) : code_(code), text_(std::move(text)) {}
    static CLuError FromErrno(int error);
    explicit operator bool() const { return code_ != 0; }
    int GetCode() const { return code_; }
    const std::string& GetText() const { return text_; }

  private:
    int code_ = 0;
    std::string text_;
};

// Owns its descriptor. Not thread-safe.
class CLuSocket {
  public:
    CLuSocket() = default;
    ~CLuSocket();
    CLuSocket(const CLuSocket&) = delete;
    CLuSocket& operator=(const CLuSocket&) = delete;

    // A stream socket, close-on-exec, SO_REUSEADDR; an IPv6 one also takes IPv4 (IPV6_V6ONLY off,
    // whatever the host's default).
    CLuError Create(int family);
    CLuError Bind(const CLuIPAddr& address);
    CLuError Listen(int backlog);
    CLuError GetLocalAddress(CLuIPAddr* out) const;
    CLuError SetNonBlocking();
    bool IsValid() const { return fd_ >= 0; }
    int GetDescriptor() const { return fd_; }
    void Close();

  private:
    int fd_ = -1;
};

// Binds a socket to a port that is open. The kernel's choice of a free port is taken.
class XoFwClient {
  public:
    // Makes `socket` anew in `address`'s family, bound to an open port; `bindType` 2 is TCP. False
    // on failure, see lastError().
    bool bind(CLuSocket& socket, CLuIPAddr& address, int bindType, bool reserve);
    const CLuError& lastError() const { return lastError_; }

  private:
    CLuError lastError_;
};
