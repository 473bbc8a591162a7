// The least that a program with a socket does when it starts: bind_only PATH listens there until it is ended. How long
// the daemon takes to its first answer is measured beside it.
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char** argv) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (argc != 2 || strlen(argv[1]) >= sizeof(address.sun_path)) {
        return 2;
    }
    strcpy(address.sun_path, argv[1]);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 128) != 0) {
        return 1;
    }
    for (;;) {
        (void)pause();
    }
}
