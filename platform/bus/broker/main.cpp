// ubusd: the broker of the message bus.
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "client.h"
#include "ubus_common.h"

namespace {

constexpr int kAcceptPauseMs = 100;

uloop_fd listener{};
uloop_timeout acceptPause{};

// Out of descriptors: the waiting connection keeps the socket readable, so look away for a while.
void pauseAccepting() {
    uloop_fd_delete(&listener);
    uloop_timeout_set(&acceptPause, kAcceptPauseMs);
}

void resumeAccepting(uloop_timeout *) {
    if (uloop_fd_add(&listener, ULOOP_READ) != 0) uloop_timeout_set(&acceptPause, kAcceptPauseMs);
}

void onConnection(uloop_fd *sock, unsigned int) {
    while (true) {
        const int fd = accept4(sock->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            bus::addClient(fd);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) pauseAccepting();
        return;
    }
}

// -1 with a line on stderr.
int listenAt(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        perror("usock");
        return -1;
    }
    memcpy(address.sun_path, path, strlen(path));
    unlink(path);
    const mode_t old = umask(0111);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const bool good = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
                      listen(fd, SOMAXCONN) == 0;
    if (!good) perror("usock");
    umask(old);
    if (good) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

// The last folder of the default socket; that of another path is the caller's.
void makeDefaultFolder() {
    char folder[] = UBUS_UNIX_SOCKET;
    *strrchr(folder, '/') = '\0';
    mkdir(folder, 0755);
}

}  // namespace

int main(int argc, char **argv) {
    const char *path = nullptr;
    int option;
    while ((option = getopt(argc, argv, "A:s:")) != -1) {
        switch (option) {
            case 's':
                path = optarg;
                break;
            case 'A':
                break;  // access rules are not enforced: every client may do all
            default:
                fprintf(stderr,
                        "Usage: %s [<options>]\n"
                        "Options:\n"
                        "  -s <socket>:\t\tSet the unix domain socket to listen on\n"
                        "  -A <path>:\t\tAccepted and ignored: access rules are not enforced\n\n",
                        argv[0]);
                return 1;
        }
    }
    if (!path) {
        makeDefaultFolder();
        path = UBUS_UNIX_SOCKET;
    }
    signal(SIGHUP, SIG_IGN);
    if (uloop_init() != 0) {
        perror("uloop");
        return 255;
    }
    listener.fd = listenAt(path);
    if (listener.fd < 0) return 255;
    listener.cb = onConnection;
    acceptPause.cb = resumeAccepting;
    uloop_fd_add(&listener, ULOOP_READ);
    if (!uloop_cancelled) uloop_run();  // a run forgets what came before it
    unlink(path);
    return 0;
}
