// SPDX-License-Identifier: MIT
// Clang thread-safety annotations. They expand to nothing on compilers without the
// analysis, so they document the locking rules everywhere and check them under clang.
#pragma once

#if defined(__clang__)
#define NIMB_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define NIMB_THREAD_ANNOTATION(x)
#endif

#define NIMB_CAPABILITY(x) NIMB_THREAD_ANNOTATION(capability(x))
#define NIMB_SCOPED_CAPABILITY NIMB_THREAD_ANNOTATION(scoped_lockable)
#define NIMB_GUARDED_BY(x) NIMB_THREAD_ANNOTATION(guarded_by(x))
#define NIMB_PT_GUARDED_BY(x) NIMB_THREAD_ANNOTATION(pt_guarded_by(x))
#define NIMB_REQUIRES(...) NIMB_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define NIMB_ACQUIRE(...) NIMB_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define NIMB_RELEASE(...) NIMB_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define NIMB_EXCLUDES(...) NIMB_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NIMB_NO_THREAD_SAFETY_ANALYSIS NIMB_THREAD_ANNOTATION(no_thread_safety_analysis)
