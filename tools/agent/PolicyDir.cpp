#include "PolicyDir.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>

namespace zelkagent {

namespace fs = std::filesystem;

namespace {

bool DigestFile(const std::string& path, std::string& hex, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
    char buffer[1 << 16];
    while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
        EVP_DigestUpdate(ctx, buffer, static_cast<size_t>(in.gcount()));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(ctx, digest, &length);
    EVP_MD_CTX_free(ctx);
    if (in.bad()) {
        error = "cannot read " + path;
        return false;
    }
    static const char* digits = "0123456789abcdef";
    hex.clear();
    for (unsigned i = 0; i < length; ++i) {
        hex += digits[digest[i] >> 4];
        hex += digits[digest[i] & 15];
    }
    return true;
}

int KindRank(DocumentKind kind) {
    switch (kind) {
        case DocumentKind::kAgentManifest:
            return 0;
        case DocumentKind::kHashRuleset:
            return 1;
        case DocumentKind::kTrustRules:
            return 2;
    }
    return 3;
}

}  // namespace

DocumentKind KindOfDocument(const std::string& name) {
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower.find("agent") != std::string::npos) {
        return DocumentKind::kAgentManifest;
    }
    if (lower.find("trustrules") != std::string::npos) {
        return DocumentKind::kTrustRules;
    }
    return DocumentKind::kHashRuleset;
}

bool ReadPolicyDir(const std::string& dir, std::vector<PolicyDocument>& documents,
                   std::string& error) {
    documents.clear();
    std::error_code ec;
    if (!fs::exists(dir, ec)) {
        return true;
    }
    fs::directory_iterator it(dir, ec);
    if (ec) {
        error = "cannot read policy directory " + dir + ": " + ec.message();
        return false;
    }
    for (const fs::directory_entry& entry : it) {
        const std::string name = entry.path().filename().string();
        if (name.empty() || name[0] == '.' || name.back() == '~' || !entry.is_regular_file(ec)) {
            continue;
        }
        PolicyDocument doc;
        doc.path = entry.path().string();
        doc.name = name;
        doc.kind = KindOfDocument(name);
        if (!DigestFile(doc.path, doc.sha256, error)) {
            documents.clear();
            return false;
        }
        documents.push_back(std::move(doc));
    }
    PlanImport(documents);
    return true;
}

void PlanImport(std::vector<PolicyDocument>& documents) {
    std::sort(documents.begin(), documents.end(),
              [](const PolicyDocument& a, const PolicyDocument& b) {
                  if (KindRank(a.kind) != KindRank(b.kind)) {
                      return KindRank(a.kind) < KindRank(b.kind);
                  }
                  return a.name < b.name;
              });
    bool seen[3] = {false, false, false};
    for (PolicyDocument& doc : documents) {
        bool& first = seen[KindRank(doc.kind)];
        doc.incremental = first;
        first = true;
    }
}

std::string DescribeChanges(const std::vector<PolicyDocument>& before,
                            const std::vector<PolicyDocument>& after) {
    std::map<std::string, std::string> old;
    for (const PolicyDocument& doc : before) {
        old[doc.name] = doc.sha256;
    }
    std::string added, changed, removed;
    auto add = [](std::string& list, const std::string& name) {
        list += (list.empty() ? "" : ", ") + name;
    };
    for (const PolicyDocument& doc : after) {
        auto it = old.find(doc.name);
        if (it == old.end()) {
            add(added, doc.name);
        } else {
            if (it->second != doc.sha256) {
                add(changed, doc.name);
            }
            old.erase(it);
        }
    }
    for (const auto& [name, sha] : old) {
        add(removed, name);
    }
    std::string out;
    for (const auto& [word, list] :
         {std::make_pair("added ", &added), std::make_pair("changed ", &changed),
          std::make_pair("removed ", &removed)}) {
        if (!list->empty()) {
            out += (out.empty() ? "" : "; ") + std::string(word) + *list;
        }
    }
    return out.empty() ? "nothing changed" : out;
}

}  // namespace zelkagent
