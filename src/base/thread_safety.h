// SPDX-License-Identifier: MIT
//
// Which lock guards a field, and which a function needs, in a form that Clang verifies (-Wthread-
// safety).  Other compilers see nothing of it.  The macros are named after Clang's attributes.
#ifndef APPCORE_BASE_THREAD_SAFETY_H
#define APPCORE_BASE_THREAD_SAFETY_H

#if defined(__clang__)
#define APP_ANALYSIS(...) __attribute__((__VA_ARGS__))
#else
#define APP_ANALYSIS(...)
#endif

#define APP_CAPABILITY(szName) APP_ANALYSIS(capability(szName))
#define APP_SCOPED_CAPABILITY APP_ANALYSIS(scoped_lockable)

// Of a field: the lock has to be held to use it, or what it points to.
#define APP_GUARDED_BY(lock) APP_ANALYSIS(guarded_by(lock))
#define APP_PT_GUARDED_BY(lock) APP_ANALYSIS(pt_guarded_by(lock))

// Of a function: the caller holds the lock; it is taken; given; perhaps taken; must not be held.
#define APP_REQUIRES(...) APP_ANALYSIS(requires_capability(__VA_ARGS__))
#define APP_ACQUIRE(...) APP_ANALYSIS(acquire_capability(__VA_ARGS__))
#define APP_RELEASE(...) APP_ANALYSIS(release_capability(__VA_ARGS__))
#define APP_TRY_ACQUIRE(...) APP_ANALYSIS(try_acquire_capability(__VA_ARGS__))
#define APP_EXCLUDES(...) APP_ANALYSIS(locks_excluded(__VA_ARGS__))
// Reads what it needs without the lock, and says why.
#define APP_NO_ANALYSIS APP_ANALYSIS(no_thread_safety_analysis)
// After its call the lock counts as held.
#define APP_ASSERT_CAPABILITY(lock) APP_ANALYSIS(assert_capability(lock))

#endif
