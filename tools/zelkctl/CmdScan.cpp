// zelkctl scan: builds the inventory from folders, as a host's first scan.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Commands.h"
#include "DbRead.h"
#include "HostDigest.h"
#include "PersistRule.h"
#include "Progress.h"

namespace zelkctl {
namespace {

struct Candidate {
    std::string dir;  // with the trailing "/"
    std::string name;
    uint64_t size;
    // From a package's md5sums: the file is trusted only if it still matches.
    bool hasMd5 = false;
    uint8_t md5[16] = {};
    std::string package;
};

struct WalkResult {
    std::vector<Candidate> files;
    std::vector<std::pair<std::string, std::string>> unreadable;  // path, reason
    std::vector<std::pair<std::string, std::string>> changed;     // path, package
    uint64_t bytes = 0;
    unsigned skippedByName = 0, byContent = 0, symlinks = 0, otherTypes = 0, otherFilesystems = 0;
    unsigned packages = 0, packageFiles = 0, missing = 0;
};

// Set by SIGINT: the scan stops after the file it is storing and says what
// it kept.
std::atomic<bool> g_Interrupted{false};

void OnInterrupt(int) {
    g_Interrupted.store(true);
}

// SIGINT sets g_Interrupted while this lives, from before the engine starts
// so that the store is never left mid-batch by the default action.
class InterruptGuard {
  public:
    InterruptGuard() {
        g_Interrupted.store(false);
        struct sigaction action;
        memset(&action, 0, sizeof(action));
        action.sa_handler = OnInterrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &m_Previous);
    }
    ~InterruptGuard() { sigaction(SIGINT, &m_Previous, nullptr); }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

  private:
    struct sigaction m_Previous;
};

// Programs whose names look like data files (vim.basic, mkfs.bfs,
// update-rc.d) are still programs: an ELF image or a "#!" script is kept
// whatever it is called.
bool ExecutableByContent(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    unsigned char head[4] = {};
    ssize_t n = read(fd, head, sizeof(head));
    close(fd);
    return (n >= 4 && memcmp(head,
                             "\x7f"
                             "ELF",
                             4) == 0) ||
           (n >= 2 && head[0] == '#' && head[1] == '!');
}

// Adds one regular file if its name or its content says it is code.
void Consider(const std::string& prefix, const std::string& name, const struct stat& st,
              WalkResult& result, Candidate* seed = nullptr) {
    bool keep = hostkit::ShouldPersistFile(name);
    if (!keep && ExecutableByContent(prefix + name)) {
        keep = true;
        ++result.byContent;
    }
    if (!keep) {
        ++result.skippedByName;
        return;
    }
    Candidate c = seed != nullptr ? *seed : Candidate();
    c.dir = prefix;
    c.name = name;
    c.size = static_cast<uint64_t>(st.st_size);
    result.files.push_back(std::move(c));
    result.bytes += static_cast<uint64_t>(st.st_size);
}

// The files installed Debian packages own, from dpkg's md5sums lists under
// `root`.  Each keeps the digest dpkg recorded for it.
void WalkPackages(const std::string& root, WalkResult& result) {
    const std::string base = root == "/" ? "" : root;
    const std::string info = base + "/var/lib/dpkg/info";
    DIR* d = opendir(info.c_str());
    if (d == nullptr) {
        result.unreadable.emplace_back(info, strerror(errno));
        return;
    }
    std::vector<std::string> lists;
    while (struct dirent* entry = readdir(d)) {
        std::string name = entry->d_name;
        const std::string suffix = ".md5sums";
        if (name.size() > suffix.size() &&
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
            lists.push_back(name);
        }
    }
    closedir(d);
    std::sort(lists.begin(), lists.end());
    for (const std::string& list : lists) {
        FILE* f = fopen((info + "/" + list).c_str(), "r");
        if (f == nullptr) {
            result.unreadable.emplace_back(info + "/" + list, strerror(errno));
            continue;
        }
        ++result.packages;
        Candidate seed;
        seed.package = list.substr(0, list.size() - strlen(".md5sums"));
        char* line = nullptr;
        size_t capacity = 0;
        ssize_t length;
        while ((length = getline(&line, &capacity, f)) > 0) {
            std::string text(line, static_cast<size_t>(length));
            while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
                text.pop_back();
            }
            // "<32 hex>  <path relative to the root>"
            if (text.size() < 35 || text[32] != ' ' ||
                !hostkit::FromHex(text.substr(0, 32), seed.md5, 16)) {
                continue;
            }
            size_t start = text.find_first_not_of(' ', 32);
            if (start == std::string::npos) {
                continue;
            }
            std::string rel = text.substr(start);
            std::string path = base + (rel[0] == '/' ? rel : "/" + rel);
            ++result.packageFiles;
            struct stat st;
            if (lstat(path.c_str(), &st) != 0) {
                ++result.missing;
                continue;
            }
            if (S_ISLNK(st.st_mode)) {
                ++result.symlinks;
                continue;
            }
            if (!S_ISREG(st.st_mode)) {
                ++result.otherTypes;
                continue;
            }
            seed.hasMd5 = true;
            size_t slash = path.find_last_of('/');
            Consider(path.substr(0, slash + 1), path.substr(slash + 1), st, result, &seed);
        }
        free(line);
        fclose(f);
    }
}

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
        if (g_Interrupted.load()) {
            return;
        }
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
        } else {
            Consider(prefix, name, st, result);
        }
    }
}

// Digests the walked files on a few threads while the caller stores them.
// The digests are the scan's cost; the store is not thread-safe for one
// batch and must see the rows in walk order, so the caller takes results
// strictly in order with Wait and writes them itself.  Each file is read
// once, by one thread.
class DigestPool {
  public:
    struct Result {
        hostkit::FileDigests digests;
        int error = 0;
        bool ok = false;
    };

    // `threads` 0 digests on the caller's thread inside Wait.  `addBytes`
    // is called from the digesting threads, under the pool's progress lock.
    DigestPool(const std::vector<Candidate>& files, unsigned threads,
               std::function<void(uint64_t)> addBytes)
        : m_Files(files),
          m_Results(files.size()),
          m_Done(files.size(), 0),
          m_AddBytes(std::move(addBytes)) {
        // A thread that cannot be started leaves the work to the others,
        // or to the caller when none started.
        try {
            for (unsigned i = 0; i < threads && i < files.size(); ++i) {
                m_Threads.emplace_back([this] { Run(); });
            }
        } catch (const std::system_error&) {
        }
    }
    ~DigestPool() {
        m_Stop.store(true);
        for (std::thread& thread : m_Threads) {
            thread.join();
        }
    }
    DigestPool(const DigestPool&) = delete;
    DigestPool& operator=(const DigestPool&) = delete;

    // The result of file `index`, once it is digested.
    const Result& Wait(size_t index) {
        if (m_Threads.empty()) {
            Digest(index);
        } else {
            std::unique_lock<std::mutex> lock(m_Mutex);
            m_Ready.wait(lock, [&] { return m_Done[index] != 0; });
        }
        return m_Results[index];
    }

    // Serialises progress output between the threads and the caller.
    std::mutex& ProgressMutex() { return m_ProgressMutex; }

  private:
    void Run() {
        for (;;) {
            size_t index = m_Next.fetch_add(1);
            if (index >= m_Files.size() || m_Stop.load()) {
                return;
            }
            Digest(index);
            {
                std::lock_guard<std::mutex> lock(m_Mutex);
                m_Done[index] = 1;
            }
            m_Ready.notify_all();
        }
    }

    void Digest(size_t index) {
        const Candidate& file = m_Files[index];
        Result& result = m_Results[index];
        result.ok = hostkit::DigestFile(file.dir + file.name, result.digests, result.error,
                                        [this](uint64_t n) {
                                            if (m_AddBytes) {
                                                std::lock_guard<std::mutex> lock(m_ProgressMutex);
                                                m_AddBytes(n);
                                            }
                                        });
    }

    const std::vector<Candidate>& m_Files;
    // Slot i is written only by the thread that took index i, and read by
    // the caller after m_Done[i] is set under m_Mutex.
    std::vector<Result> m_Results;
    std::vector<char> m_Done;  // guarded by m_Mutex
    std::function<void(uint64_t)> m_AddBytes;
    std::atomic<size_t> m_Next{0};
    std::atomic<bool> m_Stop{false};
    std::mutex m_Mutex;
    std::condition_variable m_Ready;
    std::mutex m_ProgressMutex;
    std::vector<std::thread> m_Threads;
};

unsigned DigestThreads(unsigned requested) {
    if (requested > 0) {
        return requested;
    }
    // Two threads keep the scan well ahead of the one-digest-at-a-time tools
    // without taking every core of a host that is doing other work.
    unsigned cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1 : std::min(cores, 2u);
}

}  // namespace

int ScanFolders(const ScanOptions& options) {
    WalkResult walk;
    if (options.dirs.empty() && !options.packages) {
        fprintf(stderr, "zelkctl: scan wants folders or files, or --packages\n");
        return kExitUsage;
    }
    for (const std::string& dir : options.dirs) {
        char resolved[PATH_MAX];
        struct stat st;
        if (realpath(dir.c_str(), resolved) == nullptr || stat(resolved, &st) != 0 ||
            (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode))) {
            fprintf(stderr, "zelkctl: %s: not a readable folder or file\n", dir.c_str());
            return kExitUsage;
        }
        if (S_ISDIR(st.st_mode)) {
            Walk(resolved, st.st_dev, options.crossFilesystems, walk);
            continue;
        }
        // A file named on the command line is wanted whatever its name.
        std::string path = resolved;
        size_t slash = path.find_last_of('/');
        Candidate c;
        c.dir = path.substr(0, slash + 1);
        c.name = path.substr(slash + 1);
        c.size = static_cast<uint64_t>(st.st_size);
        walk.files.push_back(c);
        walk.bytes += c.size;
    }
    if (options.packages) {
        WalkPackages(options.packageRoot, walk);
    }
    // A folder given twice, or a file two packages list, is stored once.
    {
        std::set<std::string> seen;
        std::vector<Candidate> unique;
        unique.reserve(walk.files.size());
        for (Candidate& c : walk.files) {
            if (seen.insert(c.dir + c.name).second) {
                unique.push_back(std::move(c));
            }
        }
        walk.files.swap(unique);
    }
    // What the inventory already holds with the same content is not stored
    // again: a rescan adds only new and changed files.
    std::set<std::string> existing;
    std::string readError;
    if (!ReadScannedRows(options.db, existing, readError)) {
        fprintf(stderr, "zelkctl: %s: cannot read the scanned rows: %s\n", options.db.c_str(),
                readError.c_str());
        return kExitEngine;
    }
    unsigned unchanged = 0;

    Progress progress(stderr, walk.files.size(), walk.bytes);
    unsigned stored = 0, refused = 0;
    uint64_t hashedBytes = 0;
    // One thread digests on the caller's thread: no pool threads then.
    const unsigned threads = DigestThreads(options.jobs);
    std::function<void(uint64_t)> addBytes;
    if (!options.noProgress) {
        addBytes = [&progress](uint64_t n) { progress.AddBytes(n); };
    }
    DigestPool pool(walk.files, threads > 1 ? threads : 0, addBytes);
    size_t index = 0;
    for (; index < walk.files.size() && !g_Interrupted.load(); ++index) {
        const Candidate& file = walk.files[index];
        const std::string full = file.dir + file.name;
        const DigestPool::Result& result = pool.Wait(index);
        if (!options.noProgress) {
            std::lock_guard<std::mutex> lock(pool.ProgressMutex());
            progress.FileDone();
        }
        if (!result.ok) {
            walk.unreadable.emplace_back(full, strerror(result.error));
            continue;
        }
        const hostkit::FileDigests& digests = result.digests;
        hashedBytes += digests.size;
        if (file.hasMd5 && memcmp(file.md5, digests.md5, sizeof(file.md5)) != 0) {
            walk.changed.emplace_back(full, file.package);
            continue;
        }
        std::string hex = hostkit::ToHex(digests.sha256, 32);
        for (char& ch : hex) {
            ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
        }
        if (!existing.insert(full + "\n" + hex).second) {
            ++unchanged;
            continue;
        }

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
    const bool interrupted = g_Interrupted.load();
    if (!options.noProgress) {
        std::lock_guard<std::mutex> lock(pool.ProgressMutex());
        progress.Finish();
    }
    if (stored > 0) {
        uint32_t rc = flush_db_buffer();
        if (rc != ZELK_STATUS_SUCCESS) {
            fprintf(stderr, "zelkctl: %s\n", StatusMessage(options.db, rc).c_str());
            return kExitEngine;
        }
    }

    if (interrupted) {
        printf("interrupted after %zu of %zu files: %u stored as scanned items, kept\n", index,
               walk.files.size(), stored);
        return kExitInterrupted;
    }
    printf("scanned %zu files (%s): %u stored as scanned items, %u refused by the store\n",
           walk.files.size(), Progress::Bytes(static_cast<double>(hashedBytes)).c_str(), stored,
           refused);
    printf("already in the inventory unchanged: %u\n", unchanged);
    if (walk.byContent != 0) {
        printf("kept by content (ELF or #!) though not by name: %u\n", walk.byContent);
    }
    printf(
        "skipped: %u not persisted by name, %u symbolic links, %u other file types, "
        "%u folders on other file systems\n",
        walk.skippedByName, walk.symlinks, walk.otherTypes, walk.otherFilesystems);
    if (options.packages) {
        printf("packages: %u with digest lists, %u files listed, %u missing\n", walk.packages,
               walk.packageFiles, walk.missing);
        printf("changed since installed (not trusted): %zu\n", walk.changed.size());
        for (const auto& entry : walk.changed) {
            printf("  %s (package %s)\n", entry.first.c_str(), entry.second.c_str());
        }
    }
    printf("unreadable: %zu\n", walk.unreadable.size());
    for (const auto& entry : walk.unreadable) {
        printf("  %s: %s\n", entry.first.c_str(), entry.second.c_str());
    }
    return kExitOk;
}

int RunScan(const LogOptions& log, const ScanOptions& options) {
    InterruptGuard guard;
    EngineSession session(log);
    if (!session.Start(options.db)) {
        return kExitEngine;
    }
    return ScanFolders(options);
}

}  // namespace zelkctl
