// Runs one command, discards its output, and prints the time and memory that it took:
//
//     run_usage COMMAND [ARGUMENT ...]     "microseconds of user and system time, peak kilobytes"
//
// A shell's or an interpreter's own memory would show in the peak of a child that it starts, since
// the kernel counts from before the exec; this program is smaller than anything worth measuring.
// The exit status is the command's, or 1 when it couldn't be run.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

[[noreturn]] void become(char** command) {
    const int nowhere = open("/dev/null", O_RDWR);
    if (nowhere >= 0) {
        dup2(nowhere, STDIN_FILENO);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
    }
    execvp(command[0], command);
    _exit(127);
}

long microseconds(const timeval& time) {
    return time.tv_sec * 1'000'000L + time.tv_usec;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: run_usage COMMAND [ARGUMENT ...]\n", stderr);
        return 2;
    }
    const pid_t child = fork();
    if (child == 0) become(argv + 1);

    int status = 0;
    rusage usage{};
    pid_t ended = child;
    while (child > 0 && (ended = wait4(child, &status, 0, &usage)) < 0 && errno == EINTR) {
    }
    if (ended < 0) {
        std::fprintf(stderr, "run_usage: %s\n", std::strerror(errno));
        return 1;
    }
    std::printf("%ld %ld\n", microseconds(usage.ru_utime) + microseconds(usage.ru_stime),
                usage.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
