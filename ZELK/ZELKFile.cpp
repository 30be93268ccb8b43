#include "ZELKFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include "ZELKEvent.h"

namespace {
constexpr int kCommonFlags = O_NOCTTY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

void OpenWithNoatimeRetry(const std::string& path, int flags, ac_file_s& f) {
    f.fd = open(path.c_str(), flags | O_NOATIME, 0666);
    if (f.fd < 0 && errno == EPERM) {
        // O_NOATIME is refused on files the caller does not own.
        f.fd = open(path.c_str(), flags, 0666);
    }
    f.error = f.fd < 0 ? errno : 0;
}

size_t AfterTransfer(ac_file_s* f, ssize_t result) {
    if (result > 0) {
        return static_cast<size_t>(result);
    }
    if (result == 0) {
        fileclose(f);
        return 0;
    }
    f->error = errno;
    switch (f->error) {
        case EINTR:
        case EAGAIN:
        case EFAULT:
            break;
        case EBADF:
            f->fd = -1;
            break;
        default:
            fileclose(f);
            break;
    }
    return 0;
}
}  // namespace

void fileopen_read(std::string path, ac_file_s& f) {
    OpenWithNoatimeRetry(path, O_RDONLY | kCommonFlags, f);
}

void fileopen_write(std::string path, ac_file_s& f) {
    OpenWithNoatimeRetry(path, O_WRONLY | O_CREAT | O_TRUNC | kCommonFlags, f);
}

size_t fileread(ac_file_s* f, void* buf, size_t len) {
    return AfterTransfer(f, read(f->fd, buf, len));
}

size_t filewrite(ac_file_s* f, const void* buf, size_t len) {
    return AfterTransfer(f, write(f->fd, buf, len));
}

bool fileok(ac_file_s f) {
    return f.error == 0;
}
bool fileend(ac_file_s f) {
    return f.fd < 0;
}
int fileerror(ac_file_s f) {
    return f.error;
}

void fileclose(ac_file_s* f) {
    if (f->fd >= 0) {
        if (close(f->fd) != 0) {
            f->error = errno;
        }
        f->fd = -1;
    }
}

uint64_t GetCurrentTimeInMillis() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

uint64_t convertTimeToMillis(uint64_t t) {
    if (t < 10000000000000ULL) {
        return t <= 9999999999ULL ? t * 1000 : t;
    }
    return t / 1000;
}

bool VerifyCert(std::string /*path*/) {
    return true;
}
bool IsFileExecutable(ac_event& evt) {
    return evt.isexec != 0;
}
bool IsProcessAlive(unsigned long /*pid*/) {
    return false;
}
bool ScanFile(ac_event& /*evt*/) {
    return true;
}
