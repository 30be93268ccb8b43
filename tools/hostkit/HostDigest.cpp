#include "HostDigest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace hostkit {
namespace {

struct MdCtxDeleter {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;

MdCtx NewContext(const EVP_MD* md) {
    MdCtx ctx(EVP_MD_CTX_new());
    if (ctx && EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) {
        ctx.reset();
    }
    return ctx;
}

// Large enough that the three digest updates dominate the read calls.
constexpr size_t kBlockSize = 256 * 1024;

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

bool DigestFd(int fd, FileDigests& out, int& error, const ReadProgress& progress) {
    error = 0;
    MdCtx md5 = NewContext(EVP_md5());
    MdCtx sha1 = NewContext(EVP_sha1());
    MdCtx sha256 = NewContext(EVP_sha256());
    if (!md5 || !sha1 || !sha256) {
        error = ENOMEM;
        return false;
    }
    std::vector<unsigned char> block(kBlockSize);
    out.size = 0;
    for (;;) {
        ssize_t n = read(fd, block.data(), block.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            return false;
        }
        if (n == 0) {
            break;
        }
        EVP_DigestUpdate(md5.get(), block.data(), static_cast<size_t>(n));
        EVP_DigestUpdate(sha1.get(), block.data(), static_cast<size_t>(n));
        EVP_DigestUpdate(sha256.get(), block.data(), static_cast<size_t>(n));
        out.size += static_cast<uint64_t>(n);
        if (progress) {
            progress(static_cast<uint64_t>(n));
        }
    }
    unsigned int len = 0;
    EVP_DigestFinal_ex(md5.get(), out.md5, &len);
    EVP_DigestFinal_ex(sha1.get(), out.sha1, &len);
    EVP_DigestFinal_ex(sha256.get(), out.sha256, &len);
    return true;
}

bool DigestFile(const std::string& path, FileDigests& out, int& error,
                const ReadProgress& progress) {
    const int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    int fd = open(path.c_str(), flags | O_NOATIME);
    if (fd < 0 && errno == EPERM) {
        fd = open(path.c_str(), flags);
    }
    if (fd < 0) {
        error = errno;
        return false;
    }
    bool ok = DigestFd(fd, out, error, progress);
    close(fd);
    return ok;
}

std::string ToHex(const uint8_t* bytes, size_t length) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text(length * 2, '0');
    for (size_t i = 0; i < length; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 0x0f];
    }
    return text;
}

bool FromHex(const std::string& hex, uint8_t* out, size_t length) {
    if (hex.size() != length * 2) {
        return false;
    }
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; ++i) {
        int hi = HexValue(hex[2 * i]);
        int lo = HexValue(hex[2 * i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        bytes[i] = static_cast<uint8_t>(hi * 16 + lo);
    }
    memcpy(out, bytes.data(), length);
    return true;
}

}  // namespace hostkit
