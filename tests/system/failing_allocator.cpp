// SPDX-License-Identifier: Apache-2.0
//
// Loaded into the daemon by LD_PRELOAD: allocations fail as the numbers in the file
// $OXEL_ALLOCATIONS say. Of the file's words
//   0  how many allocations from now the next failure is; 0: none fails
//   1  after a failure the next one comes so many later; 0: no other one fails
//   2  whose: 0 everybody's, 1 the program's own, 2 the RPC library's
//   3  how many have failed
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
}

namespace {

enum : size_t { kCountdown, kEvery, kWhose, kFailed, kWords };
enum : int64_t { kEverybody, kProgram, kRpcLibrary };

struct Range {
    uintptr_t begin = 0, end = 0;
    bool Has(const void* address) const {
        const auto at = reinterpret_cast<uintptr_t>(address);
        return at >= begin && at < end;
    }
};
Range gProgram, gRpcLibrary;
int64_t* gWords = nullptr;

int NoteRange(dl_phdr_info* info, size_t, void*) {
    const bool program = info->dlpi_name[0] == '\0' && gProgram.end == 0;
    Range* range = program                                          ? &gProgram
                   : strstr(info->dlpi_name, "libtirpc") != nullptr ? &gRpcLibrary
                                                                    : nullptr;
    for (int i = 0; range != nullptr && i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type != PT_LOAD) continue;
        const uintptr_t begin = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
        if (range->begin == 0) range->begin = begin;
        range->end = begin + info->dlpi_phdr[i].p_memsz;
    }
    return 0;
}

__attribute__((constructor)) void Begin() {
    dl_iterate_phdr(NoteRange, nullptr);
    const char* path = getenv("OXEL_ALLOCATIONS");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    void* mapped =
        mmap(nullptr, kWords * sizeof(int64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mapped != MAP_FAILED) gWords = static_cast<int64_t*>(mapped);
}

bool Fails(const void* caller) {
    if (gWords == nullptr || __atomic_load_n(gWords + kCountdown, __ATOMIC_RELAXED) == 0)
        return false;
    const int64_t whose = __atomic_load_n(gWords + kWhose, __ATOMIC_RELAXED);
    if (whose == kProgram && !gProgram.Has(caller)) return false;
    if (whose == kRpcLibrary && !gRpcLibrary.Has(caller)) return false;
    if (__atomic_sub_fetch(gWords + kCountdown, 1, __ATOMIC_SEQ_CST) != 0) return false;
    __atomic_store_n(gWords + kCountdown, __atomic_load_n(gWords + kEvery, __ATOMIC_SEQ_CST),
                     __ATOMIC_SEQ_CST);
    __atomic_add_fetch(gWords + kFailed, 1, __ATOMIC_SEQ_CST);
    errno = ENOMEM;
    return true;
}

void* New(size_t bytes, const void* caller) {
    for (;;) {
        void* memory = Fails(caller) ? nullptr : __libc_malloc(bytes == 0 ? 1 : bytes);
        if (memory != nullptr) return memory;
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) throw std::bad_alloc();
        handler();
    }
}

}  // namespace

#define CALLER __builtin_return_address(0)

extern "C" {
void* malloc(size_t bytes) noexcept {
    return Fails(CALLER) ? nullptr : __libc_malloc(bytes);
}
void* calloc(size_t count, size_t bytes) noexcept {
    return Fails(CALLER) ? nullptr : __libc_calloc(count, bytes);
}
void* realloc(void* memory, size_t bytes) noexcept {
    return Fails(CALLER) ? nullptr : __libc_realloc(memory, bytes);
}
void* memalign(size_t alignment, size_t bytes) noexcept {
    return Fails(CALLER) ? nullptr : __libc_memalign(alignment, bytes);
}
void* aligned_alloc(size_t alignment, size_t bytes) noexcept {
    return Fails(CALLER) ? nullptr : __libc_memalign(alignment, bytes);
}
int posix_memalign(void** memory, size_t alignment, size_t bytes) noexcept {
    void* made = Fails(CALLER) ? nullptr : __libc_memalign(alignment, bytes);
    if (made == nullptr) return ENOMEM;
    *memory = made;
    return 0;
}
}

// Here rather than in the C++ library, whose call of malloc() would hide who wants it.
void* operator new(size_t bytes) {
    return New(bytes, CALLER);
}
void* operator new[](size_t bytes) {
    return New(bytes, CALLER);
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    return Fails(CALLER) ? nullptr : __libc_malloc(bytes == 0 ? 1 : bytes);
}
void* operator new[](size_t bytes, const std::nothrow_t&) noexcept {
    return Fails(CALLER) ? nullptr : __libc_malloc(bytes == 0 ? 1 : bytes);
}
