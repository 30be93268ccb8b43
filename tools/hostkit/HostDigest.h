// Digests of a file as a host computes them before it asks the engine: MD5,
// SHA-1 and SHA-256 in one pass over the bytes, so a large file is read once.
// Used by zelkctl and meant for any other host program of this tree (a
// fanotify agent hands over an already open descriptor).
#ifndef ZELK_TOOLS_HOSTKIT_HOSTDIGEST_H_
#define ZELK_TOOLS_HOSTKIT_HOSTDIGEST_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace hostkit {

struct FileDigests {
    uint8_t md5[16] = {};
    uint8_t sha1[20] = {};
    uint8_t sha256[32] = {};
    uint64_t size = 0;  // bytes actually read
};

// Called after each block with the number of bytes read by that block.
using ReadProgress = std::function<void(uint64_t bytes)>;

// Reads `fd` from its current offset to the end and fills `out`.  The
// descriptor is left open.  On a read error returns false with the errno in
// `error` (EINTR is retried); `out` is then incomplete.
bool DigestFd(int fd, FileDigests& out, int& error, const ReadProgress& progress = nullptr);

// Opens `path` without following a final symbolic link and without touching
// its access time (retried without O_NOATIME on EPERM, as for a file of
// another owner), then DigestFd.  False with errno in `error` when the file
// cannot be opened or read.
bool DigestFile(const std::string& path, FileDigests& out, int& error,
                const ReadProgress& progress = nullptr);

// Lowercase hexadecimal text of `length` bytes.
std::string ToHex(const uint8_t* bytes, size_t length);

// Decodes exactly `length` bytes from `hex` (either case).  False, `out`
// untouched, when the text has another length or a non-hex character.
bool FromHex(const std::string& hex, uint8_t* out, size_t length);

}  // namespace hostkit

#endif  // ZELK_TOOLS_HOSTKIT_HOSTDIGEST_H_
