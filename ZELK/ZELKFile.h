// Small file and time helpers shared across the engine, and the fixed-answer
// hooks the decision code calls where a platform check would go.
#ifndef ZELK_ZELKFILE_H_
#define ZELK_ZELKFILE_H_

#include <cstddef>
#include <cstdint>
#include <string>

struct ac_event;

// A thin file-descriptor holder.  Failures are reported only through `error`
// (the last errno) and a closed `fd`; nothing here throws or logs.
struct ac_file_s {
    int fd = -1;    // -1 when closed
    int error = 0;  // last errno recorded, 0 when none
};

// Opens read-only without following a final symlink and without updating the
// access time (retried without O_NOATIME on EPERM).
void fileopen_read(std::string path, ac_file_s& f);
// Opens for writing (create, truncate, mode 0666 before umask), same flags.
void fileopen_write(std::string path, ac_file_s& f);
// One read/write call.  Returns the bytes moved; 0 at end of file (the file is
// then closed) or on error (errno kept in `error`; EINTR/EAGAIN/EFAULT keep
// the file open, EBADF forgets the descriptor, anything else closes it).
size_t fileread(ac_file_s* f, void* buf, size_t len);
size_t filewrite(ac_file_s* f, const void* buf, size_t len);
bool fileok(ac_file_s f);
bool fileend(ac_file_s f);
int fileerror(ac_file_s f);
// Closes when open; closing twice is harmless.
void fileclose(ac_file_s* f);

// Wall-clock time in milliseconds since the epoch.
uint64_t GetCurrentTimeInMillis();
// Normalises a time stamp in seconds, milliseconds or microseconds to ms.
uint64_t convertTimeToMillis(uint64_t t);

// Fixed answers: certificates are trusted, executability is the host's flag,
// no process is reported alive, and scanning a file always succeeds (the host
// supplies the digests).
bool VerifyCert(std::string path);
bool IsFileExecutable(ac_event& evt);
bool IsProcessAlive(unsigned long pid);
bool ScanFile(ac_event& evt);

#endif  // ZELK_ZELKFILE_H_
