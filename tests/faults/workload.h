// SPDX-License-Identifier: Apache-2.0
//
// A client's work on a directory of its own with every procedure of NFS and MOUNT, one call after
// the other, each with what its reply and the disk must say. A runner makes a fault of each call's
// own meet every one of them.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/faults/expected_answers.h"
#include "tests/faults/faulty_daemon.h"
#include "tests/support/nfs_client.h"

namespace oxel::test {

// One call of the work.
struct Step {
    std::string name;
    CallKind kind;
    std::function<std::string()> arguments;
    // Of a reply with status `ok`. `whole`: no fault has met the call; otherwise attributes and
    // entries may be missing, but what is there must be right.
    std::function<void(const std::string& results, bool whole)> check;
    // Whether a call that was told to have failed has been done nevertheless, and what the same
    // call answers then.
    std::function<bool()> done;
    uint32_t statusWhenDone = 0;
    // What is on the disk after a success.
    std::function<void()> verify;
};

// One time through all steps, in the directory `name` of the share at `local`.
class Round {
  public:
    Round(const std::string& root, std::string name, std::string local, uint64_t seed,
          Totals* totals);
    ~Round();  // takes the directory away from under the daemon

    enum class Work {
        kAll,
        // Only the calls that make many of their own: the directory is made on the disk.
        kListings,
    };
    std::vector<Step> Steps(Work work);

  private:
    void MakeDirectory();
    void AddMount(std::vector<Step>* steps);
    void AddMaking(std::vector<Step>* steps);
    void AddData(std::vector<Step>* steps);
    void AddAttributes(std::vector<Step>* steps);
    void AddNames(std::vector<Step>* steps);
    void AddListing(std::vector<Step>* steps);
    void AddRemoving(std::vector<Step>* steps);

    void AddCreate(std::vector<Step>* steps, const std::string& name, uint32_t how,
                   const std::string& attributes, bool namesOwner, std::string* handle);
    void AddWrite(std::vector<Step>* steps, uint64_t offset, uint32_t stable, size_t length);
    void AddRead(std::vector<Step>* steps, uint64_t offset, uint32_t count);
    void AddListing(std::vector<Step>* steps, bool plus);
    void AddRemove(std::vector<Step>* steps, uint32_t procedure, const std::string* directory,
                   const std::string& in, const std::string& name);
    // LOOKUP of a name, whose handle goes to *handle.
    void AddLookup(std::vector<Step>* steps, const std::string* directory, const std::string& name,
                   std::string* handle);

    std::string Path(const std::string& name) const { return local_ + "/" + name_ + "/" + name; }
    bool Exists(const std::string& name) const;
    // The file "f" on the disk is what was written.
    void VerifyFile() const;
    std::string Bytes(size_t length);

    const std::string root_, name_, local_;
    std::mt19937_64 random_;
    Totals* const totals_;
    std::string directory_, inner_, file_, guarded_, exclusive_, link_;  // handles
    std::string content_;                                                // of "f"
    std::string written_;                                                // by the last WRITE
    uint64_t verifier_ = 0;
};

// Sends the steps' calls on one connection. A reply must be the call's, and there must be just one.
class Runner {
  public:
    Runner(uint16_t port, Faults* faults, Totals* totals);

    NfsClient& Client() { return client_; }
    const std::string& Root() const { return root_; }
    struct Hits {
        size_t all = 0, ofListings = 0;
    };
    // Runs the steps with a chosen plan armed for each of them; how many calls were hit. After a
    // hit the same call is sent again, without a fault, and must be answered as if nothing had
    // been.
    Hits Run(const std::vector<Step>& steps, const std::function<FaultPlan()>& choose);
    // No reply is left over on the connection.
    void ExpectNoMoreReplies();
    // What MOUNT answers a call that threw bad_alloc: nothing in the default mode.
    void SetMountThrowsAreSilent(bool silent) { mountThrowsAreSilent_ = silent; }

  private:
    bool Try(const Step& step, const FaultPlan& plan);
    void Again(const Step& step, bool wasDone);
    RpcReply Call(const Step& step, bool mayBeSilent, bool* silent);

    NfsClient client_;
    Faults* const faults_;
    Totals* const totals_;
    std::string root_;
    bool mountThrowsAreSilent_ = false;
};

}  // namespace oxel::test
