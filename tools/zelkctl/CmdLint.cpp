// zelkctl lint: checks a ruleset or trust-rule document without importing
// it, and names every element the importer would skip or store in a way the
// author probably did not mean.
#include <cjson/cJSON.h>

#include <cctype>
#include <cstring>
#include <map>
#include <set>

#include "Commands.h"
#include "HostDigest.h"

namespace zelkctl {
namespace {

// Collects into a LintReport: an error is a finding that would empty or
// weaken the policy the document replaces.
class Findings {
  public:
    explicit Findings(LintReport& report) : m_Report(report) {}
    void Add(const std::string& where, const std::string& what) {
        m_Report.findings.push_back(where + ": " + what);
    }
    void Error(const std::string& where, const std::string& what) {
        m_Report.findings.push_back(where + ": " + what + " [weakens policy]");
        ++m_Report.errors;
    }

  private:
    LintReport& m_Report;
};

std::string Where(const char* array, int index, const char* key = nullptr) {
    std::string text = std::string(array) + "[" + std::to_string(index) + "]";
    if (key != nullptr) {
        text += std::string(".") + key;
    }
    return text;
}

void CheckDigest(const cJSON* element, const char* key, size_t bytes, const std::string& where,
                 Findings& findings, bool& present) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(element, key);
    if (item == nullptr || cJSON_IsNull(item)) {
        return;
    }
    if (!cJSON_IsString(item)) {
        findings.Add(where + "." + key, "not a text; the digest is ignored");
        return;
    }
    size_t len = strlen(item->valuestring);
    std::vector<uint8_t> out(bytes);
    if (len != bytes * 2) {
        findings.Add(where + "." + key,
                     std::to_string(len) + " characters where " + std::to_string(bytes * 2) +
                         " hexadecimal characters are needed: the engine decodes what is "
                         "there pair by pair and leaves the rest 0, a digest no file has");
        return;
    }
    // The importer decodes such characters anyway, into a digest no file has.
    if (!hostkit::FromHex(item->valuestring, out.data(), bytes)) {
        findings.Add(where + "." + key,
                     "holds characters that are not hexadecimal: stored as a digest that "
                     "matches no file");
        return;
    }
    present = true;
}

// Reads a size or trust type as the importer does: a number, or a text
// converted like strtol ("12abc" is 12, "abc" is 0).  Sets `value`; names in
// `problem` what the author probably did not mean.
bool ReadInteger(const cJSON* item, long long& value, std::string& problem) {
    problem.clear();
    if (cJSON_IsNumber(item)) {
        value = static_cast<long long>(item->valuedouble);
        if (item->valuedouble != static_cast<double>(value)) {
            problem = "not a whole number: read as " + std::to_string(value);
        }
        return problem.empty();
    }
    if (cJSON_IsString(item)) {
        char* end = nullptr;
        value = strtoll(item->valuestring, &end, 10);
        if (end == item->valuestring) {
            problem = "\"" + std::string(item->valuestring) + "\" is not a number: read as 0";
        } else if (*end != '\0') {
            problem = "\"" + std::string(item->valuestring) + "\" has trailing text: read as " +
                      std::to_string(value);
        }
        return problem.empty();
    }
    value = 0;
    problem = "not a number: read as 0";
    return false;
}

void CheckTexts(const cJSON* element, const std::set<std::string>& textKeys,
                const std::string& where, Findings& findings) {
    for (const cJSON* item = element->child; item != nullptr; item = item->next) {
        if (textKeys.count(item->string) != 0 && !cJSON_IsString(item) && !cJSON_IsNull(item)) {
            findings.Add(where + "." + item->string, "not a text; stored empty");
        }
    }
}

void CheckUnknownKeys(const cJSON* element, const std::set<std::string>& known,
                      const std::string& where, Findings& findings) {
    for (const cJSON* item = element->child; item != nullptr; item = item->next) {
        if (known.count(item->string) == 0) {
            findings.Add(where, std::string("unknown key \"") + item->string + "\" is ignored");
        }
    }
}

size_t LintHashRules(const cJSON* root, Findings& findings) {
    const cJSON* rules = cJSON_GetObjectItemCaseSensitive(root, "rules");
    if (rules == nullptr) {
        findings.Error("document", "no \"rules\" array: nothing would be imported");
        return 0;
    }
    if (!cJSON_IsArray(rules)) {
        findings.Error("rules", "not an array: nothing would be imported");
        return 0;
    }
    // Lower-case SHA-256 -> (index, allows) of its first rule.
    std::map<std::string, std::pair<int, bool>> seen;
    int usable = 0;
    static const std::set<std::string> kKnown = {"sha256", "sha1",   "md5",
                                                 "size",   "action", "fileName"};
    int index = 0;
    for (const cJSON* rule = rules->child; rule != nullptr; rule = rule->next, ++index) {
        std::string where = Where("rules", index);
        if (!cJSON_IsObject(rule)) {
            findings.Add(where, "not an object: skipped");
            continue;
        }
        CheckUnknownKeys(rule, kKnown, where, findings);
        CheckTexts(rule, {"action", "fileName"}, where, findings);
        bool sha256 = false, sha1 = false, md5 = false;
        CheckDigest(rule, "sha256", 32, where, findings, sha256);
        CheckDigest(rule, "sha1", 20, where, findings, sha1);
        CheckDigest(rule, "md5", 16, where, findings, md5);
        usable += (sha256 || sha1 || md5) ? 1 : 0;
        if (!sha256 && !sha1 && !md5) {
            findings.Add(where, "no usable digest: the rule can never match a file");
        } else if (!sha256) {
            findings.Add(where,
                         "no SHA-256: matched only by its SHA-1 or MD5, and only when the event "
                         "carries that digest");
        }
        const cJSON* size = cJSON_GetObjectItemCaseSensitive(rule, "size");
        long long sizeValue = 0;
        if (size != nullptr && !cJSON_IsNull(size)) {
            std::string problem;
            if (!ReadInteger(size, sizeValue, problem)) {
                findings.Add(where + ".size", problem + (sizeValue == 0 ? " (any size)" : ""));
            } else if (sizeValue < 0) {
                findings.Add(where + ".size", "negative size: the rule can never match a file");
            }
        }
        const cJSON* action = cJSON_GetObjectItemCaseSensitive(rule, "action");
        std::string text = cJSON_IsString(action) ? action->valuestring : "";
        if (text.compare(0, 5, "allow") != 0 && text.compare(0, 5, "block") != 0) {
            findings.Add(where + ".action", action == nullptr
                                                ? "missing: stored as allowed"
                                                : "\"" + text +
                                                      "\" is neither allow nor block: "
                                                      "stored as allowed");
        }
        const bool allows = text.compare(0, 5, "block") != 0;
        if (sha256) {
            std::string key = cJSON_GetObjectItemCaseSensitive(rule, "sha256")->valuestring;
            for (char& c : key) {
                c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
            }
            auto first = seen.emplace(key, std::make_pair(index, allows));
            if (!first.second && first.first->second.second != allows) {
                findings.Error(where, "allows what " + Where("rules", first.first->second.first) +
                                          " blocks, or the reverse: which one holds depends on "
                                          "the order of the import");
            }
        }
    }
    if (index == 0) {
        findings.Error("rules", "empty: nothing would be imported");
    } else if (usable == 0) {
        findings.Error("rules", "no rule has a usable digest: the import would leave nothing");
    }
    return static_cast<size_t>(index);
}

// A path pattern the trust-rule matcher can never apply to a Linux path: the
// event path is absolute, and a pattern must match from its first character.
bool PatternNeverMatches(const std::string& pattern) {
    if (pattern.empty()) {
        return false;
    }
    char first = pattern[0];
    return first != '/' && first != '\\' && first != '*';
}

size_t LintTrustRules(const cJSON* root, Findings& findings) {
    const cJSON* rules = cJSON_GetObjectItemCaseSensitive(root, "Trustrules");
    const cJSON* lists = cJSON_GetObjectItemCaseSensitive(root, "Userlists");
    if (rules == nullptr && lists == nullptr) {
        findings.Error("document",
                       "neither \"Trustrules\" nor \"Userlists\": nothing would be "
                       "imported");
        return 0;
    }
    static const std::set<std::string> kKnown = {
        "processName", "paths",    "trustType", "signerName", "productName", "companyName",
        "sha256",      "issuerCN", "issuerC",   "issuerS",    "issuerL",     "issuerO",
        "issuerOU",    "user",     "group",     "userList"};
    static const std::set<std::string> kTexts = {
        "processName", "paths",   "signerName", "productName", "companyName",
        "issuerCN",    "issuerC", "issuerS",    "issuerL",     "issuerO",
        "issuerOU",    "user",    "group",      "userList"};
    // Keys that narrow what a rule matches; a rule with none matches all.
    static const std::set<std::string> kConditions = {
        "processName", "paths",    "signerName", "productName", "companyName",
        "sha256",      "issuerCN", "issuerC",    "issuerS",     "issuerL",
        "issuerO",     "issuerOU", "user",       "group",       "userList"};
    std::set<std::string> listIds;
    if (lists != nullptr && !cJSON_IsArray(lists)) {
        findings.Add("Userlists", "not an array: no user list would be imported");
    } else if (lists != nullptr) {
        int index = 0;
        for (const cJSON* list = lists->child; list != nullptr; list = list->next, ++index) {
            std::string where = Where("Userlists", index);
            const cJSON* id = cJSON_GetObjectItemCaseSensitive(list, "id");
            const cJSON* users = cJSON_GetObjectItemCaseSensitive(list, "users");
            if (!cJSON_IsObject(list)) {
                findings.Add(where, "not an object: skipped");
                continue;
            }
            if (!cJSON_IsString(id) || id->valuestring[0] == '\0') {
                findings.Add(where + ".id", "missing or empty: the list is skipped");
                continue;
            }
            listIds.insert(id->valuestring);
            if (!cJSON_IsArray(users)) {
                findings.Add(where + ".users", "not an array: the list is skipped");
                continue;
            }
            int u = 0;
            for (const cJSON* user = users->child; user != nullptr; user = user->next, ++u) {
                if (!cJSON_IsString(user)) {
                    findings.Add(where + ".users[" + std::to_string(u) + "]",
                                 "not a text: skipped");
                }
            }
        }
    }
    if (rules == nullptr) {
        return 0;
    }
    if (!cJSON_IsArray(rules)) {
        findings.Error("Trustrules", "not an array: no trust rule would be imported");
        return 0;
    }
    int index = 0;
    for (const cJSON* rule = rules->child; rule != nullptr; rule = rule->next, ++index) {
        std::string where = Where("Trustrules", index);
        if (!cJSON_IsObject(rule)) {
            findings.Add(where, "not an object: skipped");
            continue;
        }
        CheckUnknownKeys(rule, kKnown, where, findings);
        CheckTexts(rule, kTexts, where, findings);
        const cJSON* type = cJSON_GetObjectItemCaseSensitive(rule, "trustType");
        long long typeValue = 0;
        std::string problem;
        if (type == nullptr) {
            findings.Add(where + ".trustType", "missing: stored as 0, which matches every type");
        } else if (!ReadInteger(type, typeValue, problem)) {
            findings.Add(where + ".trustType", problem);
        }
        if (typeValue < 0 || typeValue > 4) {
            findings.Add(where + ".trustType",
                         std::to_string(typeValue) + " is outside 0 to 4: the rule never applies");
        } else if (typeValue == 0) {
            findings.Add(where + ".trustType",
                         "0 applies as every type, block by target (4) included: the files it "
                         "matches are also blocked");
        }
        bool anyCondition = false;
        for (const std::string& key : kConditions) {
            const cJSON* value = cJSON_GetObjectItemCaseSensitive(rule, key.c_str());
            anyCondition |= cJSON_IsString(value) && value->valuestring[0] != '\0';
        }
        if (!anyCondition && typeValue >= 0 && typeValue <= 4) {
            findings.Error(where, typeValue == 4 ? "no condition: the rule blocks every file"
                                                 : "no condition: the rule trusts every file");
        }
        bool sha256 = false;
        CheckDigest(rule, "sha256", 32, where, findings, sha256);
        const cJSON* paths = cJSON_GetObjectItemCaseSensitive(rule, "paths");
        if (cJSON_IsString(paths) && paths->valuestring[0] != '\0') {
            std::string list = paths->valuestring;
            bool anyPattern = false;
            size_t start = 0;
            while (start <= list.size()) {
                size_t semi = list.find(';', start);
                std::string piece = list.substr(
                    start, semi == std::string::npos ? std::string::npos : semi - start);
                if (!piece.empty()) {
                    anyPattern = true;
                    if (PatternNeverMatches(piece)) {
                        findings.Add(where + ".paths",
                                     "\"" + piece +
                                         "\" does not start with /, \\ or *: it never matches "
                                         "an absolute path");
                    }
                }
                if (semi == std::string::npos) {
                    break;
                }
                start = semi + 1;
            }
            if (!anyPattern) {
                findings.Add(where + ".paths",
                             "only separators: the list matches no path, so the rule never "
                             "applies");
            }
        }
        const cJSON* userList = cJSON_GetObjectItemCaseSensitive(rule, "userList");
        if (cJSON_IsString(userList) && userList->valuestring[0] != '\0' &&
            listIds.count(userList->valuestring) == 0) {
            findings.Add(where + ".userList", std::string("\"") + userList->valuestring +
                                                  "\" is not defined in this document's "
                                                  "Userlists");
        }
    }
    if (index == 0 && (lists == nullptr || cJSON_GetArraySize(lists) == 0)) {
        findings.Error("Trustrules", "empty: nothing would be imported");
    }
    return static_cast<size_t>(index);
}

}  // namespace

LintReport LintDocument(const std::string& text, DocKind kind) {
    LintReport report;
    Findings findings(report);
    const char* parseEnd = nullptr;
    cJSON* root = cJSON_ParseWithLengthOpts(text.data(), text.size(), &parseEnd, false);
    auto lineAt = [&text](const char* where) {
        size_t offset =
            where != nullptr && where >= text.data() && where <= text.data() + text.size()
                ? static_cast<size_t>(where - text.data())
                : 0;
        unsigned line = 1;
        for (size_t i = 0; i < offset; ++i) {
            line += text[i] == '\n';
        }
        return line;
    };
    if (root == nullptr) {
        findings.Error("document", text.empty() ? "empty file"
                                                : "not valid JSON near line " +
                                                      std::to_string(lineAt(cJSON_GetErrorPtr())) +
                                                      ": the import would fail");
    } else {
        // The importer reads the first document and ignores the rest, so a
        // second document or a stray fragment is silently lost.
        const char* rest = parseEnd;
        const char* stop = text.data() + text.size();
        while (rest != nullptr && rest < stop &&
               (isspace(static_cast<unsigned char>(*rest)) || *rest == '\0')) {
            ++rest;
        }
        if (rest != nullptr && rest < stop) {
            findings.Error("document", "text after the document at line " +
                                           std::to_string(lineAt(rest)) +
                                           ": the importer reads only the first document");
        }
        if (!cJSON_IsObject(root)) {
            findings.Error("document", "not a JSON object: nothing would be imported");
        } else if (kind == DocKind::kTrustRules) {
            report.elements = LintTrustRules(root, findings);
        } else {
            report.elements = LintHashRules(root, findings);
        }
    }
    cJSON_Delete(root);
    return report;
}

int RunLint(const LintOptions& options) {
    bool ok = false;
    std::string text = ReadWholeFile(options.file, ok);
    if (!ok) {
        fprintf(stderr, "zelkctl: %s: cannot read: %s\n", options.file.c_str(), strerror(errno));
        return kExitUsage;
    }
    std::string name = options.name.empty() ? DefaultRulesetName(options.file) : options.name;
    DocKind kind = KindForName(name);
    LintReport report = LintDocument(text, kind);
    size_t count = report.findings.size();
    printf("%s: %s '%s', %zu %s, %zu finding%s", options.file.c_str(), KindName(kind), name.c_str(),
           report.elements, kind == DocKind::kTrustRules ? "trust rules" : "rules", count,
           count == 1 ? "" : "s");
    if (report.errors != 0) {
        printf(", %zu weaken%s policy", report.errors, report.errors == 1 ? "s" : "");
    }
    printf("\n");
    for (const std::string& line : report.findings) {
        printf("  %s\n", line.c_str());
    }
    return count == 0 ? kExitOk : kExitBlocked;
}

}  // namespace zelkctl
