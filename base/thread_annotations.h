// SPDX-License-Identifier: Apache-2.0
//
// clang's thread-safety analysis, checked by `make check`; nothing for other compilers.
#pragma once

#if defined(__clang__)
#define OXEL_TSA(x) __attribute__((x))
#else
#define OXEL_TSA(x)
#endif

#define CAPABILITY(x) OXEL_TSA(capability(x))
#define SCOPED_CAPABILITY OXEL_TSA(scoped_lockable)
#define GUARDED_BY(x) OXEL_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) OXEL_TSA(pt_guarded_by(x))
#define ACQUIRED_AFTER(...) OXEL_TSA(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) OXEL_TSA(acquired_before(__VA_ARGS__))
#define REQUIRES(...) OXEL_TSA(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) OXEL_TSA(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) OXEL_TSA(acquire_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) OXEL_TSA(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) OXEL_TSA(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) OXEL_TSA(release_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) OXEL_TSA(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) OXEL_TSA(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS OXEL_TSA(no_thread_safety_analysis)
