#include "PersistRule.h"

#include <set>

namespace hostkit {
namespace {

const std::set<std::string>& ExecutableExtensions() {
    static const std::set<std::string> kExtensions = {
        "class",    "jar", "ear", "war", "py",       "pyc",  "pyo", "pyz",  "pyd", "rb",
        "erb",      "php", "pl",  "sh",  "bash",     "cron", "ps1", "psm1", "vb",  "vbs",
        "vbscript", "ws",  "wsf", "wsh", "bat",      "cmd",  "tmp", "acm",  "ax",  "cpl",
        "com",      "dll", "drv", "efi", "exe",      "mui",  "ocx", "scr",  "sys", "tsp",
        "inf",      "ins", "inx", "isu", "job",      "jse",  "ko",  "msc",  "msi", "msp",
        "mst",      "paf", "pif", "ini", "manifest", "so"};
    return kExtensions;
}

// A shared library: extension "so" or "dll", or a dot-separated piece "so"
// anywhere in the name (libssl.so.1.1).
bool IsLibrary(const std::string& fileName, const std::string& extension) {
    if (fileName.empty() || extension.empty()) {
        return false;
    }
    if (extension == "dll" || extension == "so") {
        return true;
    }
    size_t start = 0;
    for (;;) {
        size_t dot = fileName.find('.', start);
        if (fileName.compare(start, dot == std::string::npos ? std::string::npos : dot - start,
                             "so") == 0) {
            return true;
        }
        if (dot == std::string::npos) {
            return false;
        }
        start = dot + 1;
    }
}

}  // namespace

bool ShouldPersistFile(const std::string& fileName) {
    size_t dot = fileName.rfind('.');
    std::string extension = dot == std::string::npos ? "" : fileName.substr(dot + 1);
    if (extension.empty()) {
        return true;
    }
    if (IsLibrary(fileName, extension)) {
        return true;
    }
    for (char c : extension) {
        if (c >= '0' && c <= '9') {
            return true;
        }
    }
    return ExecutableExtensions().count(extension) != 0;
}

}  // namespace hostkit
