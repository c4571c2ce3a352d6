// Which lock guards what, in a form that clang checks (preset tsa). Empty under other compilers.

#pragma once

#if defined(__clang__)
#define PELMO_ANNOTATE(attribute) __attribute__((attribute))
#else
#define PELMO_ANNOTATE(attribute)
#endif

// On types.
#define PELMO_CAPABILITY(name) PELMO_ANNOTATE(capability(name))
#define PELMO_SCOPED_CAPABILITY PELMO_ANNOTATE(scoped_lockable)

// On fields: read and written, or what they point to, only under the lock.
#define PELMO_GUARDED_BY(lock) PELMO_ANNOTATE(guarded_by(lock))
#define PELMO_PT_GUARDED_BY(lock) PELMO_ANNOTATE(pt_guarded_by(lock))

// On functions: needs the lock held, takes it, leaves it, must be called without it.
#define PELMO_REQUIRES(...) PELMO_ANNOTATE(requires_capability(__VA_ARGS__))
#define PELMO_ACQUIRE(...) PELMO_ANNOTATE(acquire_capability(__VA_ARGS__))
#define PELMO_RELEASE(...) PELMO_ANNOTATE(release_capability(__VA_ARGS__))
#define PELMO_EXCLUDES(...) PELMO_ANNOTATE(locks_excluded(__VA_ARGS__))

// On functions after which the lock is held, or that touch nothing it guards.
#define PELMO_ASSERTS(...) PELMO_ANNOTATE(assert_capability(__VA_ARGS__))

// On functions whose locking the checker can't follow, such as a lock taken only sometimes. Each
// use has its reason beside it.
#define PELMO_UNCHECKED_LOCKING PELMO_ANNOTATE(no_thread_safety_analysis)
