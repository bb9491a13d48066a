/*
 * How the exported names of the agent are declared.
 *
 * Default visibility also for the one who compiles against these headers: a program that defines one of the names
 * itself replaces ours, whatever visibility it is built with.
 */
#ifndef KOVA_EXPORT_H
#define KOVA_EXPORT_H

#define KOVA_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define KOVA_BEGIN_DECLS extern "C" {
#define KOVA_END_DECLS }
#define KOVA_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define KOVA_BEGIN_DECLS
#define KOVA_END_DECLS
#define KOVA_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#endif /* KOVA_EXPORT_H */
