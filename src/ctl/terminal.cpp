#include "ctl/terminal.h"

#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "core/write_fully.h"
#include "ctl/command_line.h"

namespace ctl {

namespace {

constexpr std::string_view kOwnScreen = "\033[?1049h\033[?25l", kScreenBefore = "\033[?25h\033[?1049l";

volatile sig_atomic_t taken = 0;
termios before;
bool singleKeys = false;  // standard input is a terminal

// Whatever the program waits for: an answer of a daemon that hangs may take minutes.
void onEnd(int) {
    giveTerminalBack();
    _exit(kDone);
}

void onResize(int) {}

void takeScreen() {
    taken = 1;
    if (singleKeys) {
        termios raw = before;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        (void)tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    (void)am::writeFully(STDOUT_FILENO, kOwnScreen);
}

// The shell has the terminal until it lets the program go on.
void onStop(int) {
    giveTerminalBack();
    (void)raise(SIGSTOP);
    takeScreen();
}

}  // namespace

void takeTerminal() {
    singleKeys = tcgetattr(STDIN_FILENO, &before) == 0;
    struct sigaction action {};
    action.sa_handler = onResize;
    (void)sigaction(SIGWINCH, &action, nullptr);
    action.sa_handler = onEnd;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) (void)sigaction(number, &action, nullptr);
    action.sa_handler = onStop;
    (void)sigaction(SIGTSTP, &action, nullptr);
    takeScreen();
}

void giveTerminalBack() {
    if (!taken) return;
    taken = 0;
    (void)am::writeFully(STDOUT_FILENO, kScreenBefore);
    if (singleKeys) (void)tcsetattr(STDIN_FILENO, TCSANOW, &before);
}

bool waitForKey(uint32_t seconds) {
    pollfd input{singleKeys ? STDIN_FILENO : -1, POLLIN, 0};
    const int ready = poll(&input, 1, static_cast<int>(seconds) * 1000);
    if (ready < 0) return errno == EINTR;
    char key = 0;
    return ready == 0 || (read(STDIN_FILENO, &key, 1) == 1 && key != 'q' && key != 'Q');
}

}  // namespace ctl
