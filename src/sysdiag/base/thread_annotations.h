// What guards what, in a form that clang's -Wthread-safety checks.
#pragma once

#if defined(__clang__)
#define KOVA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KOVA_THREAD_ANNOTATION(x)
#endif

#define KOVA_CAPABILITY(name) KOVA_THREAD_ANNOTATION(capability(name))
#define KOVA_SCOPED_CAPABILITY KOVA_THREAD_ANNOTATION(scoped_lockable)
#define KOVA_GUARDED_BY(x) KOVA_THREAD_ANNOTATION(guarded_by(x))
#define KOVA_REQUIRES(...) KOVA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KOVA_ACQUIRE(...) KOVA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KOVA_RELEASE(...) KOVA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KOVA_NO_THREAD_SAFETY_ANALYSIS KOVA_THREAD_ANNOTATION(no_thread_safety_analysis)
