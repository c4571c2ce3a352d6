#include "lib/transport/daemon/launch.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>

namespace {

constexpr size_t kCommandLineBytes = 1024;
constexpr const char* kDaemonName = "pmd";
constexpr const char* kNullDevice = "/dev/null";

// What the program begins with.
class SpawnTerms {
  public:
    SpawnTerms()
        : hasActions_(posix_spawn_file_actions_init(&actions_) == 0),
          hasAttributes_(posix_spawnattr_init(&attributes_) == 0) {}
    ~SpawnTerms() {
        if (hasActions_) posix_spawn_file_actions_destroy(&actions_);
        if (hasAttributes_) posix_spawnattr_destroy(&attributes_);
    }
    SpawnTerms(const SpawnTerms&) = delete;
    SpawnTerms& operator=(const SpawnTerms&) = delete;

    [[nodiscard]] bool set() {
        return hasActions_ && hasAttributes_ && setDescriptors() && setSignals();
    }

    [[nodiscard]] bool spawn(const char* const* arguments) const {
        pid_t pid = 0;
        return posix_spawnp(&pid, arguments[0], &actions_, &attributes_,
                            const_cast<char* const*>(arguments), environ) == 0;
    }

  private:
    [[nodiscard]] bool setDescriptors() {
        return posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, kNullDevice, O_RDWR, 0) ==
                   0 &&
               posix_spawn_file_actions_adddup2(&actions_, STDIN_FILENO, STDOUT_FILENO) == 0 &&
               posix_spawn_file_actions_adddup2(&actions_, STDIN_FILENO, STDERR_FILENO) == 0 &&
               posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1) == 0;
    }

    [[nodiscard]] bool setSignals() {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        return posix_spawnattr_setsigmask(&attributes_, &none) == 0 &&
               posix_spawnattr_setsigdefault(&attributes_, &all) == 0 &&
               posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK |
                                                          POSIX_SPAWN_SETSIGDEF) == 0;
    }

    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
    bool hasActions_;
    bool hasAttributes_;
};

// The end of our child. A caller that ignores its children's ends, or waits for any child on
// another thread, keeps it from us.
bool childSucceeded(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return errno == ECHILD;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The child only spawns and exits, so that the program is adopted by the system. No handler of the
// caller's runs in it.
bool spawnThroughChild(const SpawnTerms& terms, const char* const* arguments) {
    sigset_t all, former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    const pid_t child = fork();
    if (child == 0) _exit(terms.spawn(arguments) ? 0 : 1);
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return child > 0 && childSucceeded(child);
}

}  // namespace

bool launchProgram(const char* const* arguments) {
    SpawnTerms terms;
    return terms.set() && spawnThroughChild(terms, arguments);
}

bool launchDaemon(const char* specification) {
    const char* const arguments[] = {kDaemonName, "-listen", specification, "-no-permanent",
                                     nullptr};
    size_t bytes = 0;
    for (const char* const* argument = arguments; *argument != nullptr; ++argument) {
        bytes += std::strlen(*argument) + 1;
    }
    return bytes <= kCommandLineBytes && launchProgram(arguments);
}
