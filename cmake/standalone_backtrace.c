/* Standalone builds only. The C library's backtrace(3) loads the compiler's shared library at run time to walk the
 * stack, and finds no frame where there is none: a daemon that contains the compiler's unwinder uses that one. Like the
 * C library's it leaves out its own frame, and the empty one above the first. Takes nothing from the heap and no lock.
 */
#include <execinfo.h>
#include <stddef.h>
#include <stdint.h>
#include <unwind.h>

struct walk {
    void** frames;
    int size;
    int count; /* -1: the next frame is this file's own */
};

static _Unwind_Reason_Code note_frame(struct _Unwind_Context* context, void* argument) {
    struct walk* walk = argument;
    if (walk->count >= 0) {
        walk->frames[walk->count] = (void*)(uintptr_t)_Unwind_GetIP(context);
    }
    ++walk->count;
    return walk->count == walk->size ? _URC_END_OF_STACK : _URC_NO_REASON;
}

int backtrace(void** buffer, int size) {
    struct walk walk = {buffer, size, -1};
    if (size <= 0) {
        return 0;
    }
    (void)_Unwind_Backtrace(note_frame, &walk);
    if (walk.count > 1 && buffer[walk.count - 1] == NULL) {
        --walk.count;
    }
    return walk.count > 0 ? walk.count : 0;
}
