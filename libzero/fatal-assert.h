// Fatal assertions: the one way this library reports a broken internal invariant.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Writes "Assertion failed: (EXPR), function F, file X, line N." to descriptor 2 and aborts.
// Allocates nothing, so it is usable from a signal handler and with a broken heap.
[[noreturn]] void zero_assert_fail(const char *expr, const char *func, const char *file, int line);

// An optional observer, told of the failure before the text is written (the crash log keeps it).
typedef void (*zero_assert_observer_func)(const char *expr, const char *func, const char *file,
                                          int line);
void zero_assert_set_observer(zero_assert_observer_func observer);

#ifdef __cplusplus
}
#endif

// Always on, in every build type: these guard invariants, not debugging aids.
#define MV_ASSERT(e) \
  (__builtin_expect(!!(e), 1) ? (void)0 : zero_assert_fail(#e, __func__, __FILE__, __LINE__))
