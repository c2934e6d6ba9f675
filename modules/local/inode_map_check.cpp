// SPDX-License-Identifier: Apache-2.0
//
// The check reads with pread, so that a short file or a bad sector is an error and no signal.
#include "modules/local/inode_map_check.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

#if MDB_VERSION_MAJOR != 0 || MDB_VERSION_MINOR != 9
#error "the check knows the data file of LMDB 0.9"
#endif

namespace oxel::local {
namespace {

// The data file, in the machine's byte order. Pages 0 and 1 hold two states, of which the one with
// the higher transaction number counts:
//
//   page:  | number, 8 | unused, 2 | flags, 2 | lower, 2 | upper, 2 | offsets of nodes, 2 each ...
//          ... free from lower to upper ... | nodes |
//          an overflow page has its number of pages, 4, in place of lower and upper
//   node:  | low, 2 | high, 2 | flags, 2 | key size, 2 | key | data |     at even offsets
//          leaf: low and high are the data's size; branch: low, high, flags are the page below
struct PageHead {
    uint64_t number;
    uint16_t unused, flags;
    union {
        struct {
            uint16_t lower, upper;
        };
        uint32_t pages;
    };
};
static_assert(sizeof(PageHead) == 16);
constexpr uint16_t kBranch = 1, kLeaf = 2, kOverflow = 4, kMeta = 8;

struct NodeHead {
    uint16_t low, high, flags, keySize;
};
static_assert(sizeof(NodeHead) == 8);
constexpr uint16_t kBigData = 1;

struct Tree {
    uint32_t pageSize;  // in the first tree only
    uint16_t flags, depth;
    uint64_t branchPages, leafPages, overflowPages, entries, root;
};
static_assert(sizeof(Tree) == 48);

struct Meta {
    uint32_t magic, version;
    uint64_t address, mapSize;
    Tree trees[2];  // free pages by transaction; records
    uint64_t lastPage, transaction;
};
static_assert(sizeof(Meta) == 136);
constexpr uint32_t kMagic = 0xBEEFC0DE, kVersion = 1;
constexpr uint16_t kIntegerKey = 8;  // the flag of the first tree; the second has none

constexpr uint64_t kNoPage = ~uint64_t{0};
constexpr size_t kDepthMax = 30, kKeyBytesMax = 511;

class Check {
  public:
    explicit Check(int fd) : fd_(fd) {}

    // Empty, or what is wrong.
    std::string Run() {
        struct stat st;
        if (fstat(fd_, &st) != 0) return strerror(errno);
        if (st.st_size == 0) return std::string();  // LMDB begins a new one
        if (!ReadNewestMeta()) return reason_;
        if (meta_.lastPage >= static_cast<uint64_t>(st.st_size) / pageSize_) {
            return "the file is cut short";
        }
        seen_.resize(meta_.lastPage + 1);
        seen_[0] = seen_[1] = true;
        (void)(CheckTree(kFreePages) && CheckTree(kRecords));
        return reason_;
    }

  private:
    enum Which { kFreePages, kRecords };
    enum class Bound { kKey, kFrom };
    using Page = std::vector<unsigned char>;
    struct Child {
        uint64_t number;
        std::optional<std::string> from;  // its keys' lower bound; none for the first one of a page
    };

    bool Wrong(const char* what) {
        reason_ = what;
        return false;
    }
    bool ReadAt(uint64_t offset, void* to, size_t bytes) {
        const ssize_t got = pread(fd_, to, bytes, static_cast<off_t>(offset));
        if (got == static_cast<ssize_t>(bytes)) return true;
        return Wrong(got < 0 ? strerror(errno) : "the file is cut short");
    }

    bool ReadMetaAt(uint64_t offset, Meta* meta) {
        PageHead head;
        if (!ReadAt(offset, &head, sizeof head)) return false;
        if (!ReadAt(offset + sizeof head, meta, sizeof *meta)) return false;
        if ((head.flags & kMeta) == 0 || meta->magic != kMagic || meta->version != kVersion) {
            return Wrong("the file is no store");
        }
        return true;
    }
    bool ReadNewestMeta() {
        Meta other;
        if (!ReadMetaAt(0, &meta_)) return false;
        pageSize_ = meta_.trees[kFreePages].pageSize;
        if (pageSize_ < 512 || pageSize_ > 32768 || (pageSize_ & (pageSize_ - 1)) != 0) {
            return Wrong("its page size cannot be");
        }
        if (!ReadMetaAt(pageSize_, &other)) return false;
        if (other.trees[kFreePages].pageSize != pageSize_) return Wrong("its page sizes differ");
        const bool second = other.transaction > meta_.transaction;
        if (second) meta_ = other;
        // LMDB looks for the state of a transaction on the page that its number's last bit says.
        if ((meta_.transaction & 1) != second) return Wrong("its states are mixed up");
        if (meta_.lastPage < 1 || meta_.lastPage > INT64_MAX / pageSize_) {
            return Wrong("its size cannot be");
        }
        if (meta_.trees[kFreePages].flags != kIntegerKey || meta_.trees[kRecords].flags != 0) {
            return Wrong("its trees are not of the kind they should be");
        }
        return true;
    }

    // Every page is used once.
    bool Take(uint64_t page) {
        if (page > meta_.lastPage) return Wrong("it refers to a page outside the file");
        if (seen_[page]) return Wrong("it uses a page twice");
        return seen_[page] = true;
    }

    bool CheckTree(Which which) {
        const Tree& tree = meta_.trees[which];
        if (tree.root == kNoPage) {
            return tree.depth == 0 && tree.entries == 0 ? true : Wrong("a tree has no root");
        }
        if (tree.depth == 0 || tree.depth > kDepthMax) return Wrong("a tree's depth cannot be");
        // Pages to look at in the order of their keys, with their levels; the leaves' level is 1.
        struct Pending {
            Child page;
            uint16_t level;
        };
        std::vector<Pending> pending{{{tree.root, std::nullopt}, tree.depth}};
        last_.reset();
        while (!pending.empty()) {
            const auto [page, level] = std::move(pending.back());
            pending.pop_back();
            if (page.from && !Follows(*page.from, Bound::kFrom))
                return Wrong("keys are disordered");
            if (!Take(page.number)) return false;
            page_.resize(pageSize_);
            if (!ReadAt(page.number * pageSize_, page_.data(), pageSize_)) return false;
            std::vector<Child> below;
            if (!CheckPage(which, page.number, level == 1 ? kLeaf : kBranch, &below)) return false;
            for (; !below.empty(); below.pop_back())
                pending.push_back({std::move(below.back()), static_cast<uint16_t>(level - 1)});
        }
        return true;
    }

    // Keys come in order, over all pages: a search goes wrong where they do not. kFrom: the bound
    // of a page, which is greater than all keys before it and may be the page's first one.
    bool Follows(const std::string& key, Bound bound) {
        const bool follows =
            !last_ || key > *last_ || (key == *last_ && lastBound_ == Bound::kFrom);
        last_ = key;
        lastBound_ = bound;
        return follows;
    }

    bool CheckPage(Which which, uint64_t number, uint16_t kind, std::vector<Child>* below) {
        PageHead head;
        memcpy(&head, page_.data(), sizeof head);
        if (head.number != number || head.flags != kind || head.lower < sizeof head ||
            head.lower % 2 != 0 || head.upper < head.lower || head.upper > pageSize_) {
            return Wrong("a page is damaged");
        }
        std::vector<uint16_t> offsets((head.lower - sizeof head) / 2);
        memcpy(offsets.data(), page_.data() + sizeof head, offsets.size() * 2);
        if (offsets.size() < (kind == kBranch ? 2u : 1u)) return Wrong("a page is empty");
        // In the order in which they lie, nodes fill the page's end without a gap.
        bool first = true;
        std::vector<std::pair<uint16_t, size_t>> spans;
        for (const uint16_t offset : offsets) {
            size_t bytes = 0;
            if (offset < head.upper || offset % 2 != 0 || offset + sizeof(NodeHead) > pageSize_ ||
                !CheckNode(which, kind, offset, first, &bytes, below)) {
                return reason_.empty() ? Wrong("a page's entry is damaged") : false;
            }
            first = false;
            spans.emplace_back(offset, bytes);
        }
        std::sort(spans.begin(), spans.end());
        size_t at = head.upper;
        for (const auto& [offset, bytes] : spans) {
            if (offset != at) return Wrong("a page's entries overlap");
            at += bytes;
        }
        return at == pageSize_ ? true : Wrong("a page's entries overlap");
    }

    bool CheckNode(Which which, uint16_t kind, uint16_t offset, bool first, size_t* bytes,
                   std::vector<Child>* below) {
        NodeHead node;
        memcpy(&node, page_.data() + offset, sizeof node);
        const bool big = kind == kLeaf && (node.flags & kBigData) != 0;
        const size_t size = node.low | size_t{node.high} << 16;
        size_t data = 0;
        if (kind == kLeaf) data = big ? sizeof(uint64_t) : size;
        *bytes = (sizeof node + node.keySize + data + 1) & ~size_t{1};
        if (node.keySize > kKeyBytesMax || offset + *bytes > pageSize_) return false;
        // A branch's first key means "all that is smaller" and is not looked at.
        const bool looked = kind == kLeaf || !first;
        if (looked && (which == kFreePages ? node.keySize != sizeof(uint64_t) : node.keySize == 0))
            return false;
        std::optional<std::string> key;
        if (looked) key = KeyAt(which, offset + sizeof node, node.keySize);
        const unsigned char* content = page_.data() + offset + sizeof node + node.keySize;
        if (kind == kBranch) {
            below->push_back({size | uint64_t{node.flags} << 32, std::move(key)});
            return true;
        }
        if (!Follows(*key, Bound::kKey)) return Wrong("keys are disordered");
        if (which == kRecords) return node.flags == 0;
        if ((node.flags & ~kBigData) != 0 || size < sizeof(uint64_t) || size % 8 != 0) return false;
        std::vector<uint64_t> list(size / 8);
        if (big) {
            uint64_t page;
            memcpy(&page, content, sizeof page);
            if (!ReadOverflow(page, size, list.data())) return false;
        } else {
            memcpy(list.data(), content, size);
        }
        return CheckFreeList(list);
    }

    // So that keys compare as bytes.
    std::string KeyAt(Which which, size_t offset, size_t bytes) const {
        std::string key(reinterpret_cast<const char*>(page_.data()) + offset, bytes);
        // Transactions are numbers in the machine's order.
        if (which == kFreePages && std::endian::native == std::endian::little)
            std::reverse(key.begin(), key.end());
        return key;
    }

    bool ReadOverflow(uint64_t page, size_t bytes, void* to) {
        PageHead head;
        if (page > meta_.lastPage) return Wrong("it refers to a page outside the file");
        if (!ReadAt(page * pageSize_, &head, sizeof head)) return false;
        const uint64_t pages = (sizeof head + bytes + pageSize_ - 1) / pageSize_;
        if (head.number != page || head.flags != kOverflow || head.pages != pages) {
            return Wrong("a page is damaged");
        }
        for (uint64_t i = 0; i < pages; ++i)
            if (!Take(page + i)) return false;
        return ReadAt(page * pageSize_ + sizeof head, to, bytes);
    }

    // A count and page numbers, highest first.
    bool CheckFreeList(const std::vector<uint64_t>& list) {
        if (list[0] != list.size() - 1) return Wrong("a list of free pages is damaged");
        for (size_t i = 1; i < list.size(); ++i) {
            if (i > 1 && list[i] >= list[i - 1]) return Wrong("a list of free pages is damaged");
            if (!Take(list[i])) return false;
        }
        return true;
    }

    const int fd_;
    size_t pageSize_ = 0;
    Meta meta_{};
    std::vector<bool> seen_;
    std::optional<std::string> last_;  // of the tree's keys so far
    Bound lastBound_ = Bound::kKey;
    Page page_;
    std::string reason_;
};

}  // namespace

std::string CheckInodeStoreFile(const std::string& file) {
    const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd) return errno == ENOENT ? std::string() : strerror(errno);
    return Check(fd.Get()).Run();
}

}  // namespace oxel::local
