// SPDX-License-Identifier: Apache-2.0
//
// The real daemon in a tree of its own: configuration, shares, state and log below one temporary
// directory, the port chosen by the kernel. Tests of the wire and of whole systems start it here.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace oxel::test {

// True as soon as `condition` is, asked every few milliseconds; false when `timeoutMs` went by. The
// time-out is for what never comes: sanitizer builds on a busy machine are slow.
bool WaitUntil(const std::function<bool()>& condition, unsigned timeoutMs = 120000);

std::string ReadFile(const std::string& file);

// A temporary directory that OXEL_ROOT can point to, removed with everything in it at the end.
class PrivateTree {
  public:
    PrivateTree();
    ~PrivateTree();
    PrivateTree(const PrivateTree&) = delete;
    PrivateTree& operator=(const PrivateTree&) = delete;

    const std::string& Root() const { return root_; }
    // The absolute path of "name" below the root.
    std::string Path(const std::string& name) const { return root_ + "/" + name; }
    // Makes a directory below the root, with its parents; its absolute path.
    std::string MakeDir(const std::string& name) const;
    // Writes a file below the root, making directories as needed; its absolute path.
    std::string Write(const std::string& name, const std::string& content) const;

    void WriteConf(const std::string& instance, const std::string& text) const {
        Write("etc/oxelnfsd/" + instance + ".conf", text);
    }
    void WriteExports(const std::string& instance, const std::string& text) const {
        Write("etc/oxelnfsd/" + instance + ".exports", text);
    }

  private:
    std::string root_;
};

// One run of the daemon after another on one instance of a tree. The port is the kernel's choice
// when the configuration says "nNfs3Port = 0". A daemon that still runs at the end is stopped; one
// that dies by itself, ends with another code than 0, or says "Sanitizer" or "runtime error" on
// standard error fails the test.
class Daemon {
  public:
    explicit Daemon(const PrivateTree& tree, std::string instance = "wire");
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Runs put this before the daemon's own command, for example {"unshare", "-n"}.
    void SetWrapper(std::vector<std::string> wrapper) { wrapper_ = std::move(wrapper); }

    // Starts it and waits until all services answer. False with the log shown when it does not.
    bool Start(const std::vector<std::string>& arguments = {"-no_pm_reg"});
    // Starts it, hardened in a hardened run, and does not wait for anything.
    void Launch(const std::vector<std::string>& arguments);
    // The exit code of a launched daemon that ends by itself; -1 when it does not, 128 + the number
    // of the signal that ended it.
    int WaitForExit(unsigned timeoutMs = 120000);
    // SIGTERM, then WaitForExit.
    int Stop();
    // SIGKILL, and its end.
    void Kill();
    void Signal(int number) const;

    bool Running();
    pid_t Pid() const { return pid_; }
    uint16_t Port() const { return port_; }
    const std::string& Instance() const { return instance_; }

    // The log of all runs of the instance, and whether a text came or comes into it.
    std::string Log() const;
    bool LogHas(const std::string& text) const;
    bool WaitForLog(const std::string& text, unsigned timeoutMs = 30000) const;
    std::string StandardError() const;
    std::string RuntimeConf() const;

    // The oxelctl of the build, on this instance: its exit code, and what it printed.
    int Control(const std::vector<std::string>& arguments, std::string* output) const;

  private:
    uint16_t PublishedPort(const std::string& key) const;
    void CheckStandardError();
    int Reap(int status);

    const PrivateTree& tree_;
    const std::string instance_;
    std::vector<std::string> wrapper_;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
    int lastExit_ = -1;
};

// Runs a program to its end (bounded) with OXEL_ROOT set; its exit code as WaitForExit tells it.
int RunProgram(const std::string& root, const std::vector<std::string>& command,
               std::string* output, unsigned timeoutMs = 60000);

// The programs under test, from the environment that ctest sets.
std::string DaemonProgram();
std::string ControlProgram();

// Whether the tests were built with a sanitizer; the daemon then is slow.
bool SanitizerBuild();

// Whether this is the run of the tests (OXEL_TEST_HARDENED) in which every daemon whose
// configuration does not decide it itself is hardened.
bool HardenedRun();

}  // namespace oxel::test
