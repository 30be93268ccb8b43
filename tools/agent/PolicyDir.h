// The policy directory: the documents the agent imports at start and on every
// reload, and the order that makes the store hold exactly what they say.
//
// Each kind of document replaces everything of its kind when imported whole,
// and an agent manifest replaces the hash rulesets and trust rules as well.
// So a reload always imports every document, in this order: the agent
// manifests, then the hash rulesets, then the trust-rule documents; the first
// document of each kind replaces (a non-incremental import) and the others of
// that kind add to it.  Restarting or reloading any number of times therefore
// leaves one copy of each rule.  Files are taken in name order; names that
// start with "." and names ending in "~" (editor leftovers) are skipped.
#ifndef ZELK_AGENT_POLICYDIR_H_
#define ZELK_AGENT_POLICYDIR_H_

#include <string>
#include <vector>

namespace zelkagent {

enum class DocumentKind { kAgentManifest, kHashRuleset, kTrustRules };

// The engine's own choice of kind, by name ("agent" first, then "trustrules",
// compared in lower case).
DocumentKind KindOfDocument(const std::string& name);

struct PolicyDocument {
    std::string path;  // the file
    std::string name;  // the ruleset name passed to the engine: the file name
    DocumentKind kind = DocumentKind::kHashRuleset;
    std::string sha256;  // of the content, to tell what changed between reloads
    bool incremental = false;
};

// The documents of `dir` in import order.  False with `error` when the folder
// or one of its files cannot be read.  A missing folder is an empty policy.
bool ReadPolicyDir(const std::string& dir, std::vector<PolicyDocument>& documents,
                   std::string& error);
// Orders `documents` (any order) for import and sets `incremental`.
void PlanImport(std::vector<PolicyDocument>& documents);
// What changed from `before` to `after`, in words ("added x.json, changed
// y.json, removed z.json", or "nothing changed").
std::string DescribeChanges(const std::vector<PolicyDocument>& before,
                            const std::vector<PolicyDocument>& after);

}  // namespace zelkagent

#endif  // ZELK_AGENT_POLICYDIR_H_
