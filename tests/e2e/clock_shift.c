// To be preloaded: the wall clock goes wrong by as many seconds as the file tells that the
// environment names in CLOCK_SHIFT_FILE. While there is no such file it's right. The monotonic
// clock never is touched.

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static long shiftSeconds(void) {
    const int before = errno;
    const char* const path = getenv("CLOCK_SHIFT_FILE");
    const int file = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    char text[32] = "";
    if (file >= 0) {
        if (read(file, text, sizeof text - 1) < 0) text[0] = '\0';
        close(file);
    }
    errno = before;
    return strtol(text, NULL, 10);
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    const int status = (int)syscall(SYS_clock_gettime, clock, now);
    if (status == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        now->tv_sec += shiftSeconds();
    }
    return status;
}

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
    struct timespec precise;
    (void)zone;
    if (clock_gettime(CLOCK_REALTIME, &precise) != 0) return -1;
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* out) {
    struct timespec now;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) return (time_t)-1;
    if (out != NULL) *out = now.tv_sec;
    return now.tv_sec;
}
