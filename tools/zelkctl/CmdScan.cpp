// zelkctl scan: builds the inventory from folders, as a host's first scan.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Commands.h"
#include "HostDigest.h"
#include "PersistRule.h"
#include "Progress.h"

namespace zelkctl {
namespace {

struct Candidate {
    std::string dir;  // with the trailing "/"
    std::string name;
    uint64_t size;
};

struct WalkResult {
    std::vector<Candidate> files;
    std::vector<std::pair<std::string, std::string>> unreadable;  // path, reason
    uint64_t bytes = 0;
    unsigned skippedByName = 0, symlinks = 0, otherTypes = 0, otherFilesystems = 0;
};

// Depth-first, entries in name order so that two scans of one tree store the
// rows in the same order.  Never follows a symbolic link; stays on `rootDev`
// unless crossing is allowed.
void Walk(const std::string& dir, dev_t rootDev, bool cross, WalkResult& result) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        result.unreadable.emplace_back(dir, strerror(errno));
        return;
    }
    std::vector<std::string> names;
    while (struct dirent* entry = readdir(d)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    const std::string prefix = dir.back() == '/' ? dir : dir + "/";
    for (const std::string& name : names) {
        std::string path = prefix + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) {
            result.unreadable.emplace_back(path, strerror(errno));
            continue;
        }
        if (S_ISLNK(st.st_mode)) {
            ++result.symlinks;
        } else if (S_ISDIR(st.st_mode)) {
            if (!cross && st.st_dev != rootDev) {
                ++result.otherFilesystems;
                continue;
            }
            Walk(path, rootDev, cross, result);
        } else if (!S_ISREG(st.st_mode)) {
            ++result.otherTypes;
        } else if (!hostkit::ShouldPersistFile(name)) {
            ++result.skippedByName;
        } else {
            result.files.push_back({prefix, name, static_cast<uint64_t>(st.st_size)});
            result.bytes += static_cast<uint64_t>(st.st_size);
        }
    }
}

}  // namespace

int ScanFolders(const ScanOptions& options) {
    WalkResult walk;
    for (const std::string& dir : options.dirs) {
        char resolved[PATH_MAX];
        struct stat st;
        if (realpath(dir.c_str(), resolved) == nullptr || stat(resolved, &st) != 0 ||
            !S_ISDIR(st.st_mode)) {
            fprintf(stderr, "zelkctl: %s: not a readable folder\n", dir.c_str());
            return kExitUsage;
        }
        Walk(resolved, st.st_dev, options.crossFilesystems, walk);
    }

    Progress progress(stderr, walk.files.size(), walk.bytes);
    unsigned stored = 0, refused = 0;
    uint64_t hashedBytes = 0;
    for (const Candidate& file : walk.files) {
        const std::string full = file.dir + file.name;
        hostkit::FileDigests digests;
        int err = 0;
        bool ok = hostkit::DigestFile(full, digests, err, [&](uint64_t n) {
            if (!options.noProgress) {
                progress.AddBytes(n);
            }
        });
        if (!options.noProgress) {
            progress.FileDone();
        }
        if (!ok) {
            walk.unreadable.emplace_back(full, strerror(err));
            continue;
        }
        hashedBytes += digests.size;

        ac_db_item_s item;
        memset(&item, 0, sizeof(item));
        memcpy(item.md5, digests.md5, sizeof(item.md5));
        memcpy(item.sha1, digests.sha1, sizeof(item.sha1));
        memcpy(item.sha256, digests.sha256, sizeof(item.sha256));
        item.source = ZELK_SOURCE_SCANNED;
        item.fileName = file.name.c_str();
        item.path = file.dir.c_str();
        item.nativePath = full.c_str();
        item.size = digests.size;
        item.authorized = 1;
        item.ruleset = options.ruleset.c_str();
        uint32_t rc = store_item(&item, true);
        if (rc == ZELK_STATUS_SUCCESS) {
            ++stored;
        } else if (rc == ZELK_STATUS_FAILURE) {
            // An exclude trust rule covers the path, or the store refused
            // the row; either way the scan goes on.
            ++refused;
        } else {
            fprintf(stderr, "zelkctl: %s\n", StatusMessage(options.db, rc).c_str());
            return kExitEngine;
        }
    }
    if (!options.noProgress) {
        progress.Finish();
    }
    if (stored > 0) {
        uint32_t rc = flush_db_buffer();
        if (rc != ZELK_STATUS_SUCCESS) {
            fprintf(stderr, "zelkctl: %s\n", StatusMessage(options.db, rc).c_str());
            return kExitEngine;
        }
    }

    printf("scanned %zu files (%s): %u stored as scanned items, %u refused by the store\n",
           walk.files.size(), Progress::Bytes(static_cast<double>(hashedBytes)).c_str(), stored,
           refused);
    printf(
        "skipped: %u not persisted by name, %u symbolic links, %u other file types, "
        "%u folders on other file systems\n",
        walk.skippedByName, walk.symlinks, walk.otherTypes, walk.otherFilesystems);
    printf("unreadable: %zu\n", walk.unreadable.size());
    for (const auto& entry : walk.unreadable) {
        printf("  %s: %s\n", entry.first.c_str(), entry.second.c_str());
    }
    return kExitOk;
}

int RunScan(const LogOptions& log, const ScanOptions& options) {
    EngineSession session(log);
    if (!session.Start(options.db)) {
        return kExitEngine;
    }
    return ScanFolders(options);
}

}  // namespace zelkctl
