// Programs that outlive the process that starts them.

#include "lib/transport/daemon/launch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/scratch_folder.h"

namespace {

// What the program writes about itself to a named pipe, which ends when it does.
std::string writtenBy(const std::string& pipe, const std::string& script) {
    const std::string whole = "exec 3>'" + pipe + "'; " + script + " >&3";
    const char* const arguments[] = {"sh", "-c", whole.c_str(), nullptr};
    EXPECT_TRUE(launchProgram(arguments));
    std::ostringstream written;
    written << std::ifstream(pipe).rdbuf();
    return written.str();
}

TEST(Launch, SetsAProgramOnItsOwn) {
    const Folder folder;
    const std::string pipe = folder.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    constexpr int kInherited = 50;
    ASSERT_EQ(dup2(STDIN_FILENO, kInherited), kInherited);
    const auto former = std::signal(SIGPIPE, SIG_IGN);

    // Its process id, its session's and its group's, and its parent's: the test's own is none of
    // them.
    std::istringstream ids(writtenBy(pipe, "cut -d' ' -f1,4,5,6 /proc/$$/stat"));
    pid_t process = 0, parent = 0, group = 0, session = 0;
    ids >> process >> parent >> group >> session;
    EXPECT_TRUE(process > 0 && group == process && session == process);
    EXPECT_NE(parent, getpid());
    EXPECT_EQ(writtenBy(pipe, "links=$(cd /proc/$$/fd; readlink 0 1 2); echo $links"),
              "/dev/null /dev/null /dev/null\n");
    EXPECT_EQ(writtenBy(pipe, "test -e /proc/$$/fd/50 || echo closed"), "closed\n");
    // Among the first 31; the C library keeps two beyond them.
    const std::string ignored = writtenBy(pipe, "grep SigIgn /proc/$$/status");
    EXPECT_EQ(std::stoull(ignored.substr(ignored.find(':') + 1), nullptr, 16) & 0x7fffffff, 0u);

    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);  // no child is left, dead or alive
    std::signal(SIGPIPE, former);
    close(kInherited);
}

TEST(Launch, ReportsWhatCannotBeStarted) {
    const char* const unknown[] = {"pelmo-program-that-is-not-there", nullptr};
    EXPECT_FALSE(launchProgram(unknown));
    EXPECT_FALSE(launchDaemon(std::string(1000, '7').c_str()));
}

}  // namespace
