// SPDX-License-Identifier: Apache-2.0
//
// A directory of a test: names with stream positions, told through a mocked object.
#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <cerrno>
#include <cstdio>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "tests/support/contract_mocks.h"

namespace oxel::test {

class FakeDirectory {
  public:
    struct Name {
        std::string text;
        uint64_t inode;    // d_ino of the stream's entry
        int64_t position;  // the stream's position after it
    };

    // Puts the stream operations and FindChild behind `object`. Each name that is neither "." nor
    // ".." has a child object, whose Stat gives a regular file of the stream's inode + 1000.
    FakeDirectory(NiceBkEndProc* object, std::vector<Name> names) : names_(std::move(names)) {
        for (const Name& name : names_) {
            if (name.text == "." || name.text == "..") continue;
            const auto child = boost::make_shared<NiceBkEndProc>(
                object->GetPath() + "/" + name.text,
                MakeHandle(7, 8, static_cast<unsigned char>(name.inode)));
            struct stat st {};
            st.st_mode = S_IFREG | 0600;
            st.st_ino = name.inode + 1000;
            ON_CALL(*child, Stat)
                .WillByDefault([st](OxelCtxt*, const std::string&, struct stat* out) {
                    *out = st;
                    return 0;
                });
            children_[name.text] = child;
        }
        using testing::_;
        ON_CALL(*object, OpenDir).WillByDefault([this](auto&&...) {
            streams_.emplace_back();
            ++opened_;
            return &streams_.back();
        });
        ON_CALL(*object, SeekDir).WillByDefault([this](OxelCtxt*, DirStream* stream, uint64_t to) {
            Stream& s = Of(stream);
            s.position = static_cast<int64_t>(to);
            s.next = 0;
            while (to != 0 && s.next < names_.size() &&
                   static_cast<uint64_t>(names_[s.next].position) != to)
                ++s.next;
            if (to != 0 && s.next < names_.size()) ++s.next;
        });
        ON_CALL(*object, TellDir).WillByDefault([this](OxelCtxt*, DirStream* stream) {
            Stream& s = Of(stream);
            // The entry read last is not valid any more.
            std::snprintf(s.entry.d_name, sizeof s.entry.d_name, "stale");
            return s.position;
        });
        ON_CALL(*object, ReadDir)
            .WillByDefault([this](OxelCtxt*, DirStream * stream) -> struct dirent* {
                Stream& s = Of(stream);
                if (s.next == names_.size()) return nullptr;
                const Name& name = names_[s.next++];
                s.entry.d_ino = name.inode;
                std::snprintf(s.entry.d_name, sizeof s.entry.d_name, "%s", name.text.c_str());
                s.position = name.position;
                return &s.entry;
            });
        ON_CALL(*object, CloseDir).WillByDefault([this](OxelCtxt*, DirStream* stream) {
            Of(stream).open = false;
            ++closed_;
        });
        ON_CALL(*object, FindChild)
            .WillByDefault([this](OxelCtxt*, const std::string& name) -> BkEndProcPtr {
                const auto child = children_.find(name);
                if (child != children_.end()) return child->second;
                errno = ENOENT;
                return BkEndProcPtr();
            });
    }

    // The name stays in the stream, but its object has gone.
    void Remove(const std::string& name) { children_.erase(name); }
    boost::shared_ptr<NiceBkEndProc> Child(const std::string& name) { return children_.at(name); }
    int Opened() const { return opened_; }
    int Closed() const { return closed_; }

  private:
    struct Stream : DirStream {
        bool open = true;
        size_t next = 0;
        int64_t position = 0;
        struct dirent entry {};
    };
    Stream& Of(DirStream* stream) {
        Stream& s = static_cast<Stream&>(*stream);
        EXPECT_TRUE(s.open) << "the stream is used after it was closed";
        return s;
    }

    std::vector<Name> names_;
    std::map<std::string, boost::shared_ptr<NiceBkEndProc>> children_;
    std::deque<Stream> streams_;
    int opened_ = 0;
    int closed_ = 0;
};

}  // namespace oxel::test
