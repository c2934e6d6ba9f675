// SPDX-License-Identifier: Apache-2.0
//
// What the parts of oxel_probe share: a check that ends the program.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Ends the program with the line when the condition does not hold.
#define DEMAND(condition)                                                                \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            printf("FAILED: line %d: %s (%s)\n", __LINE__, #condition, strerror(errno)); \
            exit(1);                                                                     \
        }                                                                                \
    } while (false)

namespace oxel::test {

// `operations` reads, writes, mappings, truncations and reopenings at random places of a file,
// compared with a copy in memory. The same seed does the same.
void RandomIo(const char* file, unsigned seed, unsigned operations);

// Processes that write, rename, link and remove files in `folder` until the file `enough` exists;
// then every name and every byte is compared with what there must be. Says what was done.
// `repeats`: how often an answer may say that a call had been done before (ENOENT or EEXIST of a
// call that was sent again, because its first answer was lost with the server).
void WorkUntil(const char* folder, const char* enough, unsigned repeats);

}  // namespace oxel::test
