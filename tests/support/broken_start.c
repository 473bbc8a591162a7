/* Preloaded into the daemon: one of its two detached threads, which serve, comes up late. BROKEN_START says which, "1"
 * or "2" in the order in which they are made; it waits at the fifo whose path is in BROKEN_START_GATE until the other
 * end has been opened and closed. */
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

static void* (*late_routine)(void*);

static void* come_late(void* argument) {
    const int end = open(getenv("BROKEN_START_GATE"), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    while (read(end, &byte, 1) > 0) {
    }
    (void)close(end);
    return late_routine(argument);
}

int pthread_create(pthread_t* ret_thread, const pthread_attr_t* attr, void* (*routine)(void*), void* argument) {
    static int detached; /* the main thread alone makes such */
    int (*real)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) = NULL;
    *(void**)&real = dlsym(RTLD_NEXT, "pthread_create");
    int state = PTHREAD_CREATE_JOINABLE;
    if (attr != NULL) {
        (void)pthread_attr_getdetachstate(attr, &state);
    }
    if (state == PTHREAD_CREATE_DETACHED && ++detached == strtol(getenv("BROKEN_START"), NULL, 10)) {
        late_routine = routine;
        routine = come_late;
    }
    return real(ret_thread, attr, routine, argument);
}
