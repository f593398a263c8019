// Names for clang's lock annotations (-Wthread-safety); other compilers see nothing.
//
// A lock is a VELLUM_CAPABILITY; data names its lock with VELLUM_GUARDED_BY, an operation the mode it needs with
// VELLUM_REQUIRES (exclusive) or VELLUM_REQUIRES_SHARED (shared or upgrade).
#pragma once

#if defined(__clang__)
#define VELLUM_ANNOTATE(x) __attribute__((x))
#else
#define VELLUM_ANNOTATE(x)
#endif

#define VELLUM_CAPABILITY(name) VELLUM_ANNOTATE(capability(name))
#define VELLUM_SCOPED_CAPABILITY VELLUM_ANNOTATE(scoped_lockable)
#define VELLUM_GUARDED_BY(x) VELLUM_ANNOTATE(guarded_by(x))
#define VELLUM_PT_GUARDED_BY(x) VELLUM_ANNOTATE(pt_guarded_by(x))
#define VELLUM_ACQUIRED_BEFORE(...) VELLUM_ANNOTATE(acquired_before(__VA_ARGS__))
#define VELLUM_ACQUIRED_AFTER(...) VELLUM_ANNOTATE(acquired_after(__VA_ARGS__))
#define VELLUM_REQUIRES(...) VELLUM_ANNOTATE(requires_capability(__VA_ARGS__))
#define VELLUM_REQUIRES_SHARED(...) VELLUM_ANNOTATE(requires_shared_capability(__VA_ARGS__))
#define VELLUM_EXCLUDES(...) VELLUM_ANNOTATE(locks_excluded(__VA_ARGS__))
#define VELLUM_ACQUIRE(...) VELLUM_ANNOTATE(acquire_capability(__VA_ARGS__))
#define VELLUM_ACQUIRE_SHARED(...) VELLUM_ANNOTATE(acquire_shared_capability(__VA_ARGS__))
#define VELLUM_RELEASE(...) VELLUM_ANNOTATE(release_capability(__VA_ARGS__))
#define VELLUM_RELEASE_SHARED(...) VELLUM_ANNOTATE(release_shared_capability(__VA_ARGS__))
#define VELLUM_RELEASE_GENERIC(...) VELLUM_ANNOTATE(release_generic_capability(__VA_ARGS__))
#define VELLUM_TRY_ACQUIRE(...) VELLUM_ANNOTATE(try_acquire_capability(__VA_ARGS__))
#define VELLUM_RETURN_CAPABILITY(x) VELLUM_ANNOTATE(lock_returned(x))
#define VELLUM_NO_THREAD_SAFETY_ANALYSIS VELLUM_ANNOTATE(no_thread_safety_analysis)
