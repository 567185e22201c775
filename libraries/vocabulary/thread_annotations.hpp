#pragma once

// Names for clang's thread-safety analysis (-Wthread-safety); empty under other compilers.
// A member says which mutex guards it, a function which mutex its caller must or must not hold,
// and the compiler then checks what would otherwise be a comment.

#if defined(__clang__)
#define TESSARON_TSA(x) __attribute__((x))
#else
#define TESSARON_TSA(x)
#endif

#define TESSARON_CAPABILITY(name) TESSARON_TSA(capability(name))
#define TESSARON_SCOPED_CAPABILITY TESSARON_TSA(scoped_lockable)
#define TESSARON_GUARDED_BY(mutex) TESSARON_TSA(guarded_by(mutex))
#define TESSARON_PT_GUARDED_BY(mutex) TESSARON_TSA(pt_guarded_by(mutex))
#define TESSARON_REQUIRES(...) TESSARON_TSA(requires_capability(__VA_ARGS__))
#define TESSARON_EXCLUDES(...) TESSARON_TSA(locks_excluded(__VA_ARGS__))
#define TESSARON_ACQUIRE(...) TESSARON_TSA(acquire_capability(__VA_ARGS__))
#define TESSARON_RELEASE(...) TESSARON_TSA(release_capability(__VA_ARGS__))
#define TESSARON_TRY_ACQUIRE(...) TESSARON_TSA(try_acquire_capability(__VA_ARGS__))
#define TESSARON_RETURN_CAPABILITY(mutex) TESSARON_TSA(lock_returned(mutex))
/// For the rare function whose locking the analysis cannot follow; say why beside it.
#define TESSARON_NO_TSA TESSARON_TSA(no_thread_safety_analysis)
