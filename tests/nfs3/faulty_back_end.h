// SPDX-License-Identifier: Apache-2.0
//
// A back end whose N-th call fails, or throws, for the tests that run a procedure once for every N.
// It knows every descriptor and every directory stream that it gave out, and how often each was
// closed.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "tests/nfs3/nfs3proc_fixture.h"

namespace oxel::test {

// Numbers the calls into the contract and picks the one that goes wrong.
class Faults {
  public:
    enum class Kind { kFail, kThrow };
    void Arm(int call, Kind kind) {
        armed_ = call;
        kind_ = kind;
        calls_ = 0;
        hit_ = "";
    }
    // Whether this call is to fail; in the other kind it throws.
    bool Hits(const char* operation) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (++calls_ != armed_) return false;
        hit_ = operation;
        if (kind_ == Kind::kThrow) throw std::bad_alloc();
        errno = EIO;
        return true;
    }
    // For operations that cannot fail.
    void Passes(const char* operation) {
        if (kind_ == Kind::kThrow) Hits(operation);
    }
    std::string Hit() const { return hit_; }

  private:
    std::mutex mutex_;
    int armed_ = 0;
    Kind kind_ = Kind::kFail;
    int calls_ = 0;
    std::string hit_;
};

// What came of one run.
struct Outcome {
    std::string failed;  // the operation that failed; "" when none did
    int status;
    std::string sent;   // what the reply carries
    std::string error;  // the last message of level 2 or below
    bool operator==(const Outcome&) const = default;
    friend void PrintTo(const Outcome& outcome, std::ostream* out) {
        *out << "{" << outcome.failed << ", " << outcome.status << ", \"" << outcome.sent
             << "\", \"" << outcome.error << "\"}";
    }
};

class HandlerFaults : public ProcTest {
  protected:
    HandlerFaults() {
        Module();
        Object(object_.get(), S_IFDIR | 0755);
        Object(child_.get(), S_IFREG | 0644);
        Object(parent_.get(), S_IFDIR | 0755);
        Directory();
        Descriptors();
    }

    void Module() {
        ON_CALL(*module_, GetHandleString).WillByDefault([this](auto&&...) {
            faults_.Passes("GetHandleString");
            return std::string("handle text");
        });
        ON_CALL(*module_, GetExportForHandle)
            .WillByDefault([this](const nfs_fh3&, ExportPtr& share) {
                if (faults_.Hits("GetExportForHandle")) return false;
                share = share_;
                return true;
            });
        ON_CALL(*module_, GetBkEndProc).WillByDefault([this](auto&&...) {
            return faults_.Hits("GetBkEndProc") ? BkEndProcPtr() : object_;
        });
        ON_CALL(*share_, IsWritable).WillByDefault([this] {
            return faults_.Hits("IsWritable") ? 0u : 1u;
        });
        ON_CALL(*share_, IsClientAllowed).WillByDefault([this](auto&&...) {
            return !faults_.Hits("IsClientAllowed");
        });
    }

    void Object(NiceBkEndProc* object, mode_t mode) {
        ON_CALL(*object, Stat)
            .WillByDefault([this, mode](OxelCtxt*, const std::string&, struct stat* out) {
                if (faults_.Hits("Stat")) return -1;
                *out = FileStat(mode);
                return 0;
            });
        const auto result = [this](const char* operation) {
            return [this, operation](auto&&...) { return faults_.Hits(operation) ? -1 : 0; };
        };
        ON_CALL(*object, Access).WillByDefault(result("Access"));
        ON_CALL(*object, Chmod).WillByDefault(result("Chmod"));
        ON_CALL(*object, Chown).WillByDefault(result("Chown"));
        ON_CALL(*object, SetTimes).WillByDefault(result("SetTimes"));
        ON_CALL(*object, Truncate).WillByDefault(result("Truncate"));
        ON_CALL(*object, PathConf).WillByDefault(result("PathConf"));
        ON_CALL(*object, StatFs).WillByDefault([this](auto&&, auto&&, struct statfs* out) {
            if (faults_.Hits("StatFs")) return EIO;
            *out = {};
            return 0;
        });
        ON_CALL(*object, ReadLink)
            .WillByDefault([this](OxelCtxt*, const std::string&, char* buffer, size_t) {
                if (faults_.Hits("ReadLink")) return ssize_t{-1};
                buffer[0] = 't';
                return ssize_t{1};
            });
        ON_CALL(*object, FindChild).WillByDefault([this](auto&&...) {
            return faults_.Hits("FindChild") ? BkEndProcPtr() : child_;
        });
        ON_CALL(*object, GetParent).WillByDefault([this](auto&&...) {
            return faults_.Hits("GetParent") ? BkEndProcPtr() : parent_;
        });
    }

    // The names ".", ".." and "a".
    void Directory() {
        ON_CALL(*object_, OpenDir).WillByDefault([this](auto&&...) -> DirStream* {
            if (faults_.Hits("OpenDir")) return nullptr;
            std::lock_guard<std::mutex> lock(mutex_);
            Stream* stream = new Stream;
            streams_[stream] = 0;
            return stream;
        });
        ON_CALL(*object_, SeekDir).WillByDefault([this](auto&&...) { faults_.Passes("SeekDir"); });
        ON_CALL(*object_, TellDir).WillByDefault([this](OxelCtxt*, DirStream* stream) {
            faults_.Passes("TellDir");
            return static_cast<int64_t>(static_cast<Stream*>(stream)->next);
        });
        ON_CALL(*object_, ReadDir)
            .WillByDefault([this](OxelCtxt*, DirStream * stream) -> struct dirent* {
                static const char* const names[] = {".", "..", "a"};
                Stream* s = static_cast<Stream*>(stream);
                if (faults_.Hits("ReadDir") || s->next == std::size(names)) return nullptr;
                strcpy(s->entry.d_name, names[s->next]);
                s->entry.d_ino = ++s->next;
                return &s->entry;
            });
        ON_CALL(*object_, CloseDir).WillByDefault([this](OxelCtxt*, DirStream* stream) {
            std::lock_guard<std::mutex> lock(mutex_);
            ++streams_[static_cast<Stream*>(stream)];
        });
    }

    void Descriptors() {
        ON_CALL(*object_, Open).WillByDefault([this](auto&&...) {
            if (faults_.Hits("Open")) return -1;
            std::lock_guard<std::mutex> lock(mutex_);
            const int fd = 100 + static_cast<int>(descriptors_.size());
            descriptors_[fd] = 0;
            return fd;
        });
        ON_CALL(*object_, Read)
            .WillByDefault([this](OxelCtxt*, int, void* buffer, uint64_t, uint32_t count) {
                if (faults_.Hits("Read")) return ssize_t{-1};
                std::memset(buffer, 'r', count);
                return static_cast<ssize_t>(count);
            });
        ON_CALL(*object_, Close).WillByDefault([this](OxelCtxt*, int fd) {
            std::lock_guard<std::mutex> lock(mutex_);
            ++descriptors_[fd];
            return 0;
        });
    }

    void EverythingWasClosedOnce() {
        for (const auto& [fd, closed] : descriptors_) EXPECT_EQ(1, closed) << fd;
        descriptors_.clear();
        for (const auto& [stream, closed] : streams_) {
            EXPECT_EQ(1, closed);
            delete stream;
        }
        streams_.clear();
    }

    // A record as the dispatcher hands it to the handler.
    void Fresh(CallInfo3& call, int procedure) {
        call.Reset();
        call.transport = &transport_;
        call.identity.clientAddress = CLuIPAddr(transport_.xp_raddr);
        call.procedure = procedure;
        call.row = &Nfsv3Handlers[procedure];
        std::memcpy(static_cast<void*>(&call.arguments()), &handle_, sizeof handle_);
    }

    // Runs the procedure with the first, the second, ... call failing, until none fails.
    std::vector<Outcome> RunAll(int procedure, std::function<void()> fillArguments,
                                std::function<std::string()> sent) {
        std::vector<Outcome> outcomes;
        do {
            Fresh(call_, procedure);
            fillArguments();
            log_.Clear();
            faults_.Arm(static_cast<int>(outcomes.size()) + 1, Faults::Kind::kFail);
            EXPECT_EQ(TRUE, call_.row->handler(&call_));
            std::string error;
            for (const LogLine& line : log_.Lines())
                if (line.level <= 2) error = line.text;
            outcomes.push_back({faults_.Hit(), call_.result.getattr.status, sent(), error});
            EverythingWasClosedOnce();
            if (call_.row->release != nullptr) call_.row->release(&call_);
        } while (!outcomes.back().failed.empty() && outcomes.size() < 100);
        return outcomes;
    }

    // The same with exceptions; how many calls threw. Sanitizers see what would be lost.
    int ThrowAll(int procedure, std::function<void()> fillArguments) {
        int thrown = 0;
        for (;; ++thrown) {
            Fresh(call_, procedure);
            fillArguments();
            faults_.Arm(thrown + 1, Faults::Kind::kThrow);
            bool passed = true;
            try {
                call_.row->handler(&call_);
            } catch (const std::bad_alloc&) {
                passed = false;
            }
            EXPECT_EQ(passed, faults_.Hit().empty());
            EverythingWasClosedOnce();
            if (call_.row->release != nullptr) call_.row->release(&call_);
            if (passed) return thrown;
        }
    }

    void LookupArguments() { call_.arguments().lookup.what.name = name_; }
    void SetattrArguments() {
        sattr3& wish = call_.arguments().setattr.new_attributes;
        wish.mode = {TRUE, 0600};
        wish.uid = {TRUE, 1};
        wish.gid = {TRUE, 1};
        wish.size = {TRUE, 1};
        wish.atime.set_it = wish.mtime.set_it = SET_TO_CLIENT_TIME;
    }
    void ReadArguments(CallInfo3& call) { call.arguments().read.count = 10; }
    void ReaddirArguments() { call_.arguments().readdir.count = 8192; }
    void ReaddirplusArguments(CallInfo3& call) {
        call.arguments().readdirplus.dircount = 8192;
        call.arguments().readdirplus.maxcount = 8192;
    }

    struct Stream : DirStream {
        size_t next = 0;
        struct dirent entry {};
    };
    Faults faults_;
    std::mutex mutex_;
    std::map<int, int> descriptors_;  // how often closed; guarded by mutex_
    std::map<Stream*, int> streams_;  // likewise
    char name_[4] = "a";
    boost::shared_ptr<NiceBkEndProc> child_ =
        boost::make_shared<NiceBkEndProc>("/srv/share/dir/name/a", handle_);
    boost::shared_ptr<NiceBkEndProc> parent_ =
        boost::make_shared<NiceBkEndProc>("/srv/share/dir", handle_);
};

}  // namespace oxel::test
