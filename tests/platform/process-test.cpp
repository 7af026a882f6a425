// Whether a process is still there, as the controller asks it of a daemon that is not
// its child: not once it has ended, even unreaped, and still while its other threads wind
// down after its first thread has gone.
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/process.h"

namespace {

TEST(ProcessAlive, AProcessIsGoneOnlyWhenItsLastThreadHasEnded) {
    int release[2];
    ASSERT_EQ(::pipe(release), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The first thread ends; another holds the process until the pipe closes.
        static int fd = release[0];
        ::close(release[1]);
        pthread_t t;
        ::pthread_create(
            &t, nullptr,
            [](void*) -> void* {
                char c;
                while (::read(fd, &c, 1) > 0) {
                }
                ::_exit(0);
            },
            nullptr);
        // The thread alone, without the unwinding pthread_exit would do through the test.
        ::syscall(SYS_exit, 0);
    }
    ::close(release[0]);
    // The first thread shows as ended while the other still runs.
    for (int i = 0; i < 500; ++i) {
        EXPECT_TRUE(platform::process_alive(pid));
        ::usleep(1000);
    }
    ::close(release[1]);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, pid, &info, WEXITED | WNOWAIT), 0);  // ended, not reaped
    EXPECT_FALSE(platform::process_alive(pid));
    ::waitpid(pid, nullptr, 0);
    EXPECT_FALSE(platform::process_alive(pid));
    EXPECT_TRUE(platform::process_alive(::getpid()));
}

}  // namespace
