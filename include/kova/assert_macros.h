/*
 * What a module asserts with. A condition that does not hold is recorded (see kova/assert.h), and the program goes on.
 *
 *     KOVA_ASSERT(route != NULL);
 *     KOVA_ASSERT_LOG(count <= limit, "route table is full");
 *
 * The condition is evaluated once, in every build; the text only when the condition does not hold.
 */
#ifndef KOVA_ASSERT_MACROS_H
#define KOVA_ASSERT_MACROS_H

#include <stddef.h>

#include "kova/assert.h"

#define KOVA_ASSERT(cond) KOVA_ASSERT_LOG(cond, NULL)

#define KOVA_ASSERT_LOG(cond, text) (__builtin_expect(!(cond), 0) ? KOVA_Assert(__FILE__, __LINE__, (text)) : (void)0)

#endif /* KOVA_ASSERT_MACROS_H */
