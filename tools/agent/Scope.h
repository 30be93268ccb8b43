// What the agent decides about: which folders and mounts it marks, and what an opened file is to
// the engine (a program, a shared object, or something an interpreter may read as a script).
#ifndef ZELK_TOOLS_AGENT_SCOPE_H_
#define ZELK_TOOLS_AGENT_SCOPE_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace zelkagent {

// `roots` and every folder below them, symbolic links not followed.
std::vector<std::string> FoldersBelow(const std::vector<std::string>& roots);

// File-system types that hold no programs an administrator installs
// (kernel interfaces, pseudo file systems): left unmarked by --all-mounts.
const std::vector<std::string>& DefaultSkippedFsTypes();

// Mount points of /proc/self/mounts whose type is not in `skip`, one per
// mount point.
std::vector<std::string> MountPoints(const std::vector<std::string>& skip);

enum class ElfKind {
    kNone,     // not an ELF file: an interpreter may read it as a script
    kProgram,  // a program with a loader (PT_INTERP) or a fixed-address one
    kLibrary,  // a shared object without a loader of its own
};

// Reads the ELF header and program headers of `fd`.  A program's loader
// path is returned in `interp` (empty for a static program).
ElfKind ClassifyElf(int fd, std::string& interp);

// True when the running image of `pid` is the file `interp` names: the
// dynamic loader started by hand (ld.so ./prog) opening the program it
// is to run.
bool IsLoaderOf(pid_t pid, const std::string& interp);

}  // namespace zelkagent

#endif  // ZELK_TOOLS_AGENT_SCOPE_H_
