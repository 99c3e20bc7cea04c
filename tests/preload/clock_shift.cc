// LD_PRELOAD shim for tests: moves the wall clock of the process it is loaded
// into by the number of seconds in the file CORVALD_TEST_CLOCK_SHIFT names
// (read at every call; no file or no number: no shift). The monotonic clock
// is left alone, as a step of the system clock leaves it.
#include <dlfcn.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace {

long shift() {
    const char* path = std::getenv("CORVALD_TEST_CLOCK_SHIFT");
    if (path == nullptr)
        return 0;
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    char text[32] = {};
    ssize_t n = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    return n > 0 ? std::strtol(text, nullptr, 10) : 0;
}

template <typename F>
F next(const char* name) {
    return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t id, struct timespec* ts) {
    static auto real = next<int (*)(clockid_t, struct timespec*)>("clock_gettime");
    int rc = real(id, ts);
    if (rc == 0 && (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE))
        ts->tv_sec += shift();
    return rc;
}

time_t time(time_t* out) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    if (out != nullptr)
        *out = ts.tv_sec;
    return ts.tv_sec;
}

}  // extern "C"
