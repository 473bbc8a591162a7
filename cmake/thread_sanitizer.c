/* Thread-sanitizer builds only: what the sanitizer cannot know, for every program, however it is started. */

const char* __tsan_default_suppressions(void);

const char* __tsan_default_suppressions(void) {
    /* dlopen(3) and dlclose(3) are for all threads. The lock that orders them is the loader's own, which the sanitizer
     * does not see: a library's last dlclose() frees what another thread's dlopen() has made. By the loader's file
     * name, because where its debug symbols are not installed its functions have no names.
     * Standard output is one for all requests of the daemon, unguarded by design. dup2(2) is atomic; the sanitizer
     * takes a descriptor's number for memory. */
    return "race:/ld-linux\n"
           "race:set_standard_output\n";
}
