// Thin wrappers over descriptor and socket calls. Each logs its own failure
// under its own name and returns a negative value, so callers only test the
// sign and pass the failure on.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace corvald {

// Writes all len (>= 1) bytes; returns len or -1. nointr > 0 retries EINTR.
ssize_t buf_tx(int fd, const char* buf, size_t len, int nointr);
// Reads exactly len bytes; returns len, 0 at an early end of file, or -1.
ssize_t buf_rx(int fd, char* buf, size_t len, int nointr);

// open/openat/close/accept, each retrying EINTR with a warning.
int fd_open(const char* path, int flags, int mode);
int fd_openat(int dirfd, const char* path, int flags, int mode);
int fd_close(int fd);
// Returns the accepted socket (TCP_NODELAY set) with the peer's dotted
// address in inet_addr[16] and its port in *inet_port, or -1.
int tcp_accept(int so, char* inet_addr, int* inet_port);

// blocking > 0 clears O_NONBLOCK, else sets it; 0, -1 (F_GETFL), -2 (F_SETFL).
int fd_blocking(int fd, int blocking);

// A listening IPv4 TCP socket on addr:port (backlog <= 0 means 128), or -1.
int tcp_listen(const char* addr, int port, int backlog);

}  // namespace corvald
