#include "Scope.h"

#include <elf.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace zelkagent {

std::vector<std::string> FoldersBelow(const std::vector<std::string>& roots) {
    std::vector<std::string> folders;
    for (const std::string& root : roots) {
        folders.push_back(root);
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(
                 root, std::filesystem::directory_options::skip_permission_denied, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
            if (it->is_directory(ec) && !it->is_symlink(ec)) {
                folders.push_back(it->path().string());
            }
        }
    }
    return folders;
}

const std::vector<std::string>& DefaultSkippedFsTypes() {
    static const std::vector<std::string> kTypes = {
        "proc",    "sysfs",       "cgroup", "cgroup2",  "devpts",     "mqueue",  "debugfs",
        "tracefs", "securityfs",  "pstore", "bpf",      "configfs",   "fusectl", "hugetlbfs",
        "autofs",  "binfmt_misc", "nsfs",   "efivarfs", "rpc_pipefs", "devtmpfs"};
    return kTypes;
}

std::vector<std::string> MountPoints(const std::vector<std::string>& skip) {
    std::vector<std::string> points;
    FILE* f = setmntent("/proc/self/mounts", "re");
    if (f == nullptr) {
        return points;
    }
    struct mntent entry;
    char buffer[4096];
    while (getmntent_r(f, &entry, buffer, sizeof(buffer)) != nullptr) {
        if (std::find(skip.begin(), skip.end(), entry.mnt_type) != skip.end()) {
            continue;
        }
        if (std::find(points.begin(), points.end(), entry.mnt_dir) == points.end()) {
            points.emplace_back(entry.mnt_dir);
        }
    }
    endmntent(f);
    return points;
}

ElfKind ClassifyElf(int fd, std::string& interp) {
    interp.clear();
    Elf64_Ehdr eh;
    if (pread(fd, &eh, sizeof(eh), 0) != static_cast<ssize_t>(sizeof(eh)) ||
        memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0) {
        return ElfKind::kNone;
    }
    if (eh.e_ident[EI_CLASS] != ELFCLASS64) {
        // A 32-bit object is judged by its type alone.
        Elf32_Ehdr eh32;
        if (pread(fd, &eh32, sizeof(eh32), 0) != static_cast<ssize_t>(sizeof(eh32))) {
            return ElfKind::kLibrary;
        }
        return eh32.e_type == ET_EXEC ? ElfKind::kProgram : ElfKind::kLibrary;
    }
    if (eh.e_type == ET_EXEC) {
        // Fixed-address program; it may still name a loader.
    } else if (eh.e_type != ET_DYN) {
        return ElfKind::kNone;  // object files and core dumps run nothing
    }
    // A position-independent program and a shared object are both ET_DYN;
    // only the program names a loader.
    bool hasInterp = false;
    const unsigned count = std::min<unsigned>(eh.e_phnum, 128);
    for (unsigned i = 0; i < count && eh.e_phentsize == sizeof(Elf64_Phdr); ++i) {
        Elf64_Phdr ph;
        if (pread(fd, &ph, sizeof(ph), static_cast<off_t>(eh.e_phoff + i * sizeof(ph))) !=
            static_cast<ssize_t>(sizeof(ph))) {
            break;
        }
        if (ph.p_type == PT_INTERP && ph.p_filesz > 1 && ph.p_filesz < 4096) {
            std::string path(ph.p_filesz, '\0');
            if (pread(fd, &path[0], path.size(), static_cast<off_t>(ph.p_offset)) ==
                static_cast<ssize_t>(path.size())) {
                path.resize(strnlen(path.c_str(), path.size()));
                interp = path;
            }
            hasInterp = true;
            break;
        }
    }
    return (eh.e_type == ET_EXEC || hasInterp) ? ElfKind::kProgram : ElfKind::kLibrary;
}

bool IsLoaderOf(pid_t pid, const std::string& interp) {
    if (interp.empty()) {
        return false;
    }
    struct stat loader, image;
    const std::string exe = "/proc/" + std::to_string(pid) + "/exe";
    return stat(interp.c_str(), &loader) == 0 && stat(exe.c_str(), &image) == 0 &&
           loader.st_dev == image.st_dev && loader.st_ino == image.st_ino;
}

}  // namespace zelkagent
