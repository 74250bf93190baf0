// Lock annotations for clang's thread-safety analysis (-Wthread-safety).
//
// They state in the code which lock guards which data and which functions
// must be called with a lock held, and clang checks every access against
// them at compile time. On other compilers they expand to nothing. The
// names carry the SF_ prefix because this header is installed with locks.h
// and must not collide with a host's own macros of the same purpose.
#pragma once

#if defined(__clang__)
#define SF_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define SF_THREAD_ANNOTATION(x)
#endif

// The class is a lock; the string names the kind in clang's messages.
#define SF_CAPABILITY(kind) SF_THREAD_ANNOTATION(capability(kind))
// The class holds a lock for its scope (a lock guard).
#define SF_SCOPED_CAPABILITY SF_THREAD_ANNOTATION(scoped_lockable)
// The field is read and written only with the lock held.
#define SF_GUARDED_BY(lock) SF_THREAD_ANNOTATION(guarded_by(lock))
// What the pointer field points to is used only with the lock held.
#define SF_PT_GUARDED_BY(lock) SF_THREAD_ANNOTATION(pt_guarded_by(lock))
// The caller must hold the locks.
#define SF_REQUIRES(...) SF_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// The function takes the locks (this lock when none is named) and returns
// holding them.
#define SF_ACQUIRE(...) SF_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
// The function releases the locks (this lock when none is named).
#define SF_RELEASE(...) SF_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// The caller must not hold the locks (the function takes them itself).
#define SF_EXCLUDES(...) SF_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// The function returns a reference to the lock named.
#define SF_RETURN_CAPABILITY(lock) SF_THREAD_ANNOTATION(lock_returned(lock))
// The function's locking cannot be stated in these terms; the reason is
// written beside each use.
#define SF_NO_THREAD_SAFETY_ANALYSIS SF_THREAD_ANNOTATION(no_thread_safety_analysis)
