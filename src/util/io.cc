#include "util/io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include "base/log.h"

namespace corvald {

ssize_t buf_tx(int fd, const char* buf, size_t len, int nointr) {
    assert(len >= 1);
    size_t done = 0;
    while (done < len) {
        ssize_t n = ::write(fd, buf + done, len - done);
        if (n < 0) {
            if (errno == EINTR && nointr > 0) continue;
            CV_ERROR("write(%zu): %s", len - done, std::strerror(errno));
            return -1;
        }
        assert(n > 0);
        done += static_cast<size_t>(n);
    }
    assert(done == len);
    return static_cast<ssize_t>(len);
}

ssize_t buf_rx(int fd, char* buf, size_t len, int nointr) {
    size_t done = 0;
    for (;;) {
        ssize_t n = len - done > 0 ? ::read(fd, buf + done, len - done) : 0;
        if (n < 0) {
            if (errno == EINTR && nointr > 0) continue;
            CV_ERROR("read(%zu): %s", len - done, std::strerror(errno));
            return -1;
        }
        if (n == 0) {
            CV_ERROR("read(%zu): EOF", len - done);
            return 0;
        }
        done += static_cast<size_t>(n);
        assert(done <= len);
        if (done == len) return static_cast<ssize_t>(len);
    }
}

int fd_open(const char* path, int flags, int mode) {
    for (;;) {
        int fd = ::open(path, flags, mode);
        if (fd >= 0) return fd;
        if (errno != EINTR) {
            CV_ERROR("open(%s): %s", path, std::strerror(errno));
            return fd;
        }
        CV_WARN("open(%s): %s", path, std::strerror(errno));
    }
}

int fd_openat(int dirfd, const char* path, int flags, int mode) {
    for (;;) {
        int fd = ::openat(dirfd, path, flags, mode);
        if (fd >= 0) return fd;
        if (errno != EINTR) {
            CV_ERROR("openat(%s): %s", path, std::strerror(errno));
            return fd;
        }
        CV_WARN("openat(%s): %s", path, std::strerror(errno));
    }
}

int fd_close(int fd) {
    assert(fd >= 0);
    for (;;) {
        if (::close(fd) == 0) return 0;
        if (errno != EINTR) {
            CV_ERROR("close(%d): %s", fd, std::strerror(errno));
            return -1;
        }
        CV_WARN("close(%d): %s", fd, std::strerror(errno));
    }
}

int tcp_accept(int so, char* inet_addr, int* inet_port) {
    struct sockaddr_in sa;
    int fd;
    for (;;) {
        std::memset(&sa, 0, sizeof(sa));
        socklen_t salen = sizeof(sa);
        fd = ::accept(so, reinterpret_cast<struct sockaddr*>(&sa), &salen);
        if (fd >= 0) break;
        if (errno != EINTR) {
            CV_ERROR("accept(): %s", std::strerror(errno));
            return -1;
        }
        CV_WARN("accept(): %s", std::strerror(errno));
    }
    if (::inet_ntop(AF_INET, &sa.sin_addr, inet_addr, INET_ADDRSTRLEN) == nullptr) {
        CV_ERROR("inet_ntop(): %s", std::strerror(errno));
        fd_close(fd);
        return -1;
    }
    *inet_port = ntohs(sa.sin_port);
    int one = 1;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)) < 0) {
        CV_ERROR("setsockopt(TCP_NODELAY): %s", std::strerror(errno));
        fd_close(fd);
        return -1;
    }
    return fd;
}

int fd_blocking(int fd, int blocking) {
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) {
        CV_ERROR("fcntl(F_GETFL): %s", std::strerror(errno));
        return -1;
    }
    flags = blocking > 0 ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    if (::fcntl(fd, F_SETFL, flags) < 0) {
        CV_ERROR("fcntl(F_SETFL): %s", std::strerror(errno));
        return -2;
    }
    return 0;
}

int tcp_listen(const char* addr, int port, int backlog) {
    int so = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (so < 0) {
        CV_ERROR("socket(): %s", std::strerror(errno));
        return -1;
    }
    int one = 1;
    struct sockaddr_in sa;
    if (::setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) < 0) {
        CV_ERROR("setsockopt(SO_REUSEADDR): %s", std::strerror(errno));
        goto fail;
    }
    std::memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (::inet_aton(addr, &sa.sin_addr) == 0) {
        CV_ERROR("inet_aton(%s): failed", addr);
        goto fail;
    }
    if (::bind(so, reinterpret_cast<struct sockaddr*>(&sa), sizeof(sa)) < 0) {
        CV_ERROR("bind(%s:%d): %s", addr, port, std::strerror(errno));
        goto fail;
    }
    if (::listen(so, backlog > 0 ? backlog : 128) < 0) {
        CV_ERROR("listen(): %s", std::strerror(errno));
        goto fail;
    }
    return so;
fail:
    fd_close(so);
    return -1;
}

}  // namespace corvald
