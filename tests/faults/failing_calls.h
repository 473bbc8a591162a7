/* Calls that fail when a test says so. The functions of the C library by which the product allocates and asks the
 * kernel are defined in the test program itself and so stand before the library's own, also for the C++ and the JSON
 * library. What the C library does within one of its own functions goes past them. */
#ifndef VEXPROD_TESTS_FAILING_CALLS_H
#define VEXPROD_TESTS_FAILING_CALLS_H

#ifdef __cplusplus
extern "C" {
#endif

/** The `nth` call (from 1) of `function`, and with `for_good` each one after it, fails with `error`. `function` lives
 * as long as the process. Counted in this process and in those that it forks from here on. */
void fail_calls(const char* function, int error, unsigned nth, int for_good);

/** From here on all calls succeed again. @return How many failed. */
unsigned stop_failing(void);

/** How often the function was called that fail_calls() named last, up to stop_failing(). */
unsigned calls_seen(void);

/** How many blocks of memory this process has allocated and not freed. */
long blocks_in_use(void);

#ifdef __cplusplus
}
#endif

#endif
