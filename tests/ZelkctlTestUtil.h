// Runs the built zelkctl as a user would, one process per command, and reads
// what it writes; shared by the zelkctl suites.
#ifndef ZELK_TESTS_ZELKCTLTESTUTIL_H_
#define ZELK_TESTS_ZELKCTLTESTUTIL_H_

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "HostDigest.h"
#include "TestUtil.h"

namespace ctltest {

using zelktest::ReadFile;

struct CtlRun {
    int exit = -1;
    std::string out, err;
};

// Runs zelkctl with `args` in `cwd` and expects it to end with `exit`.  With
// `withoutDacOverride` a root process gives up its power to read any file, so
// that a mode-000 file is unreadable to it as it would be to anyone else.
inline CtlRun Zelkctl(const std::string& cwd, std::vector<std::string> args, int exit = 0,
                      bool withoutDacOverride = false) {
    const std::string outPath = cwd + "/zelkctl.stdout", errPath = cwd + "/zelkctl.stderr";
    std::vector<char*> argv = {const_cast<char*>(ZELKCTL_PATH)};
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0) {
            _exit(126);
        }
        dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        if (withoutDacOverride && geteuid() == 0) {
            prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
            prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0);
        }
        execv(ZELKCTL_PATH, argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    CtlRun run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(outPath), ReadFile(errPath)};
    EXPECT_EQ(run.exit, exit) << "zelkctl " << args[0] << " " << (args.size() > 1 ? args[1] : "")
                              << "\n"
                              << run.out << run.err;
    return run;
}

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline void ExpectAll(const std::string& text, std::initializer_list<std::string> parts) {
    for (const std::string& part : parts) {
        EXPECT_TRUE(Contains(text, part)) << "missing \"" << part << "\" in\n" << text;
    }
}

inline void WriteExecutable(const std::string& path, const std::string& content,
                            mode_t mode = 0755) {
    zelktest::WriteFile(path, content);
    chmod(path.c_str(), mode);
}

inline std::string Sha256Hex(const std::string& path) {
    hostkit::FileDigests d;
    int err = 0;
    EXPECT_TRUE(hostkit::DigestFile(path, d, err)) << path;
    return hostkit::ToHex(d.sha256, 32);
}

// A hash ruleset document: one rule per (file, action).
inline std::string Ruleset(std::initializer_list<std::pair<std::string, const char*>> rules) {
    std::string json;
    for (const auto& [file, action] : rules) {
        json += std::string(json.empty() ? "" : ",") + "{\"sha256\":\"" + Sha256Hex(file) +
                "\",\"action\":\"" + action + "\"}";
    }
    return "{\"rules\":[" + json + "]}";
}

// An export document's rows as (key, sha256) and the sources they name.
struct ExportDoc {
    std::vector<std::pair<std::string, std::string>> rows;
    std::set<int> sources;
    std::set<std::pair<std::string, std::string>> RowSet() const {
        return {rows.begin(), rows.end()};
    }
};

inline ExportDoc ReadExport(const std::string& path, const char* key) {
    ExportDoc doc;
    cJSON* root = cJSON_Parse(ReadFile(path).c_str());
    const cJSON* items = cJSON_GetObjectItemCaseSensitive(root, "items");
    for (const cJSON* row = cJSON_IsArray(items) ? items->child : nullptr; row != nullptr;
         row = row->next) {
        const cJSON* k = cJSON_GetObjectItemCaseSensitive(row, key);
        const cJSON* sha = cJSON_GetObjectItemCaseSensitive(row, "sha256");
        const cJSON* source = cJSON_GetObjectItemCaseSensitive(row, "source");
        doc.rows.emplace_back(cJSON_IsString(k) ? k->valuestring : "",
                              cJSON_IsString(sha) ? sha->valuestring : "");
        doc.sources.insert(cJSON_IsNumber(source) ? source->valueint : -1);
    }
    cJSON_Delete(root);
    return doc;
}

}  // namespace ctltest

#endif  // ZELK_TESTS_ZELKCTLTESTUTIL_H_
