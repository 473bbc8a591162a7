// Holds a file whose file system says nothing any more, until its standard input ends: for callers in another language,
// who take it by its number with pidfd_getfd(2). Prints the number; -1 = no FUSE to be had here.
#include "silent_file.h"

#include <cstdio>

int main() {
    const support::silent_file file;
    (void)printf("%d\n", file.fd());
    (void)fflush(stdout);
    (void)getchar();
    return 0;
}
