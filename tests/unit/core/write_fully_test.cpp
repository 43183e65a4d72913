#include "core/write_fully.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

namespace {

int readEnd;
char taken[1 << 19];
size_t takenLength;

// Makes room in the pipe, in a signal's handler: the write before it was cut short, or interrupted.
void drain(int) {
    const int error = errno;
    ssize_t got;
    while ((got = read(readEnd, taken + takenLength, sizeof taken - takenLength)) > 0)
        takenLength += static_cast<size_t>(got);
    errno = error;
}

TEST(WriteFully, ShortAndInterruptedWritesLoseAndRepeatNothing) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    readEnd = ends[0];
    ASSERT_EQ(fcntl(readEnd, F_SETFL, O_NONBLOCK), 0);
    std::string bytes(200'000, '\0');
    for (size_t i = 0; i < bytes.size(); i++) bytes[i] = static_cast<char>(i * 2654435761U >> 13);
    // Full from the start: the first write is interrupted before it has written anything.
    ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
    std::string before;
    while (write(ends[1], "x", 1) == 1) before += 'x';
    ASSERT_EQ(fcntl(ends[1], F_SETFL, 0), 0);

    struct sigaction action {};
    action.sa_handler = drain;  // without SA_RESTART
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval often{{0, 1000}, {0, 1000}};
    const itimerval never{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    const size_t written = am::writeFully(ends[1], bytes);
    ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
    drain(0);
    EXPECT_EQ(written, bytes.size());
    EXPECT_TRUE(std::string(taken, takenLength) == before + bytes);
    (void)close(ends[0]);
    (void)close(ends[1]);
}

}  // namespace
