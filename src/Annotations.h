// Names for the attributes of Clang's thread-safety analysis; nothing for other compilers.
#pragma once

#if defined(__clang__)
#define RCVT_ATTRIBUTE(x) __attribute__((x))
#else
#define RCVT_ATTRIBUTE(x)
#endif

#define RCVT_CAPABILITY(name) RCVT_ATTRIBUTE(capability(name))
#define RCVT_SCOPED_CAPABILITY RCVT_ATTRIBUTE(scoped_lockable)
#define RCVT_GUARDED_BY(lock) RCVT_ATTRIBUTE(guarded_by(lock))
#define RCVT_ACQUIRE(...) RCVT_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RCVT_RELEASE(...) RCVT_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RCVT_REQUIRES(...) RCVT_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define RCVT_EXCLUDES(...) RCVT_ATTRIBUTE(locks_excluded(__VA_ARGS__))
// For the few places where the analysis cannot follow, each with a word why.
#define RCVT_NO_ANALYSIS RCVT_ATTRIBUTE(no_thread_safety_analysis)
