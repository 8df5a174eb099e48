/* Preloaded into nginx by drive_peers.sh: paces every connection nginx
 * accepts to PACE_BYTES_PER_SECOND (the kernel's TCP pacing), which makes a
 * link limited per connection. nginx's limit_rate is no such limit for
 * short requests: it grants each request a second's allowance up front, so
 * a 4 MiB range under "limit_rate 50m" arrives at about 100 MB/s. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/socket.h>

static unsigned bytes_per_second;

__attribute__((constructor)) static void read_rate(void) {
    const char* rate = getenv("PACE_BYTES_PER_SECOND");
    if (rate != NULL) bytes_per_second = (unsigned)strtoul(rate, NULL, 10);
}

int accept4(int fd, struct sockaddr* address, socklen_t* length, int flags) {
    static int (*next)(int, struct sockaddr*, socklen_t*, int);
    if (next == NULL)
        next = (int (*)(int, struct sockaddr*, socklen_t*, int))dlsym(RTLD_NEXT, "accept4");
    const int connection = next(fd, address, length, flags);
    if (connection >= 0 && bytes_per_second > 0) {
        setsockopt(connection, SOL_SOCKET, SO_MAX_PACING_RATE, &bytes_per_second,
                   sizeof bytes_per_second);
    }
    return connection;
}
