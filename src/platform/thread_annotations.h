// Clang's thread-safety annotations: which lock guards a member, which locks a function needs
// or must not hold. `scripts/test` builds the library once with clang and -Wthread-safety,
// which then proves, per function, that guarded members are touched only under their lock;
// other compilers see nothing. Internal; not installed.
//
// Thread safety: not applicable (macros).
#pragma once

#if defined(__clang__)
#define KP_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KP_THREAD_ANNOTATION(x)
#endif

// On a class: it is a lock (a "capability" named `name`).
#define CAPABILITY(name) KP_THREAD_ANNOTATION(capability(name))
// On a class: an object that holds a lock for its own lifetime.
#define SCOPED_CAPABILITY KP_THREAD_ANNOTATION(scoped_lockable)
// On a member: read and written only while `lock` is held.
#define GUARDED_BY(lock) KP_THREAD_ANNOTATION(guarded_by(lock))
// On a pointer member: what it points to is read and written only while `lock` is held.
#define PT_GUARDED_BY(lock) KP_THREAD_ANNOTATION(pt_guarded_by(lock))
// On a function: the caller holds these locks.
#define REQUIRES(...) KP_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// On a function: the caller does not hold these locks (the function takes them).
#define EXCLUDES(...) KP_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// On a function: it takes these locks (no argument: the object's own) and returns holding them.
#define ACQUIRE(...) KP_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
// On a function: it lets go of these locks (no argument: the object's own).
#define RELEASE(...) KP_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// On a function: it takes the lock when it returns `result`.
#define TRY_ACQUIRE(...) KP_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// On a function: the analysis cannot follow it (say why beside it).
#define NO_THREAD_SAFETY_ANALYSIS KP_THREAD_ANNOTATION(no_thread_safety_analysis)
