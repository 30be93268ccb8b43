// zelkctl guarding policy: imports that would empty or weaken what they
// replace, what a manifest import takes away, trust-rule round trips and
// what lint reports.  Each command runs as its own process.
#include <pwd.h>

#include "ZelkctlTestUtil.h"

using namespace ctltest;

namespace {

const std::string kExamples = ZELK_EXAMPLES_DIR;

std::string CurrentUser() {
    struct passwd* pw = getpwuid(geteuid());
    return pw != nullptr ? pw->pw_name : std::to_string(geteuid());
}

}  // namespace

TEST(ZelkctlPolicy, ImportRefusesDocumentsThatWouldEmptyThePolicy) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    WriteExecutable(dir + "/a", "#!/bin/sh\necho a\n");
    const std::string good = Ruleset({{dir + "/a", "allow"}});
    zelktest::WriteFile(dir + "/site.json", good);
    ExpectAll(Zelkctl(dir, {"import", "--db", db, dir + "/site.json"}).out, {"1 rules"});

    const std::pair<const char*, std::string> bad[] = {
        {"mistyped key", "{\"rule\":[]}"},
        {"array", "[]"},
        {"trailing text", good + "\nnot json"},
        {"two documents", good + good},
        {"every element invalid", "{\"rules\":[{\"action\":\"allow\"},7]}"},
    };
    for (const auto& [what, text] : bad) {
        zelktest::WriteFile(dir + "/site.json", text);
        CtlRun r = Zelkctl(dir, {"import", "--db", db, dir + "/site.json"}, 1);
        ExpectAll(r.err, {"not imported", "--force"});
        EXPECT_FALSE(Contains(r.out, "imported")) << what;
        ExpectAll(Zelkctl(dir, {"status", "--db", db}).out, {"site", "1 rules"});
    }
    ExpectAll(Zelkctl(dir, {"check", "--db", db, "--lockdown", dir + "/a"}).out, {"allow"});

    // Asked for, the emptying import happens, and says so.
    zelktest::WriteFile(dir + "/site.json", "{\"rules\":[]}");
    CtlRun forced = Zelkctl(dir, {"import", "--db", db, dir + "/site.json", "--force"});
    ExpectAll(forced.out, {"0 rules"});
    ExpectAll(forced.err, {"warning: rules: empty"});
}

TEST(ZelkctlPolicy, ManifestImportSaysWhatItRemoved) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    Zelkctl(dir, {"import", "--db", db, kExamples + "/demo-ruleset.json"});
    Zelkctl(dir, {"import", "--db", db, kExamples + "/demo-trustrules.json"});
    CtlRun r = Zelkctl(dir, {"import", "--db", db, kExamples + "/demo-agent-manifest.json"});
    ExpectAll(r.out, {"agent manifest",
                      "removed with it: 2 hash-ruleset rules, 4 trust rules, "
                      "1 user lists"});
    // A ruleset replaces only its own rules: nothing else to report.
    r = Zelkctl(dir, {"import", "--db", db, kExamples + "/demo-ruleset.json"});
    EXPECT_FALSE(Contains(r.out, "removed")) << r.out;
}

TEST(ZelkctlPolicy, TrustRuleExportCarriesUserListsAndKeepsVerdicts) {
    std::string dir = zelktest::ScratchDir();
    mkdir((dir + "/apps").c_str(), 0755);
    WriteExecutable(dir + "/apps/tool", "#!/bin/sh\necho tool\n");
    zelktest::WriteFile(dir + "/siteTrustRules.json",
                        "{\"Userlists\":[{\"id\":\"ops\",\"users\":[\"" + CurrentUser() +
                            "\",\"nobody-else\"]}],\"Trustrules\":[{\"trustType\":2,\"paths\":\"" +
                            dir + "/apps/*\",\"userList\":\"ops\"}]}");
    const std::string a = dir + "/a.db", b = dir + "/b.db";
    Zelkctl(dir, {"import", "--db", a, dir + "/siteTrustRules.json"});
    CtlRun before = Zelkctl(dir, {"check", "--db", a, "--lockdown", dir + "/apps/tool"});
    ExpectAll(before.out, {"allow", "trust rule"});

    ExpectAll(Zelkctl(dir, {"export", "--db", a, "--out", dir + "/t.json", "--trust-rules"}).out,
              {"1 user lists"});
    ExpectAll(ReadFile(dir + "/t.json"), {"\"Userlists\"", "nobody-else"});
    Zelkctl(dir, {"import", "--db", b, dir + "/t.json", "--name", "copyTrustRules"});
    ExpectAll(Zelkctl(dir, {"status", "--db", b}).out, {"1 lists, 2 members"});
    ExpectAll(Zelkctl(dir, {"check", "--db", b, "--lockdown", dir + "/apps/tool"}).out,
              {"allow", "trust rule"});
    // Another user is not on the list: the copy limits the rule as the
    // original did.
    Zelkctl(dir, {"check", "--db", b, "--lockdown", "--user", "nobody-at-all", dir + "/apps/tool"},
            1);
    Zelkctl(dir, {"check", "--db", a, "--lockdown", "--user", "nobody-at-all", dir + "/apps/tool"},
            1);
}

TEST(ZelkctlPolicy, LintReportsWhatWeakensPolicyAndImportWarns) {
    std::string dir = zelktest::ScratchDir();
    zelktest::WriteFile(dir + "/siteTrustRules.json",
                        R"({"Trustrules":[{"trustType":2},{"trustType":1,"pathz":"/opt/*"},)"
                        R"({"trustType":0,"paths":"/opt/a/*"},{"trustType":"2x","paths":"/b/*"},)"
                        R"({"trustType":4,"processName":"/usr/bin/curl"}]} trailing)");
    CtlRun r = Zelkctl(dir, {"lint", dir + "/siteTrustRules.json"}, 1);
    ExpectAll(r.out, {"Trustrules[0]: no condition: the rule trusts every file [weakens policy]",
                      "Trustrules[1]: no condition: the rule trusts every file [weakens policy]",
                      "Trustrules[1]: unknown key \"pathz\"",
                      "Trustrules[2].trustType: 0 applies as every type",
                      "Trustrules[3].trustType: \"2x\" has trailing text: read as 2",
                      "document: text after the document at line 1", "3 weaken policy"});
    EXPECT_FALSE(Contains(r.out, "Trustrules[4]")) << r.out;

    const std::string a = std::string(64, 'a');
    zelktest::WriteFile(dir + "/rules.json",
                        "{\"rules\":[{\"sha256\":\"" + a +
                            "\",\"action\":\"allow\"},{\"sha256\":\"" + std::string(62, 'A') +
                            "zz\",\"action\":\"allow\"},{\"sha256\":\"" + a +
                            "\",\"action\":\"block\"},{\"sha256\":\"" + std::string(64, 'c') +
                            "\",\"size\":\"12abc\"},{\"sha256\":\"" + std::string(64, 'd') +
                            "\",\"size\":\"abc\",\"action\":\"allow\"},{\"sha1\":\"" +
                            std::string(38, 'e') + "\",\"action\":\"allow\"}]}");
    r = Zelkctl(dir, {"lint", dir + "/rules.json"}, 1);
    ExpectAll(r.out, {"rules[1].sha256: holds characters that are not hexadecimal",
                      "rules[2]: allows what rules[0] blocks, or the reverse",
                      "rules[3].size: \"12abc\" has trailing text: read as 12",
                      "rules[4].size: \"abc\" is not a number: read as 0",
                      "rules[5].sha1: 38 characters where 40", "1 weakens policy"});

    // The importer takes such a document; zelkctl says what it noticed.
    zelktest::WriteFile(dir + "/odd.json", "{\"rules\":[{\"sha256\":\"" + std::string(64, 'c') +
                                               "\",\"size\":\"12abc\",\"action\":\"allow\"}]}");
    r = Zelkctl(dir, {"import", "--db", dir + "/ac.db", dir + "/odd.json"});
    ExpectAll(r.out, {"imported"});
    ExpectAll(r.err, {"warning: rules[0].size: \"12abc\" has trailing text: read as 12"});
    // The contradiction weakens policy: refused.
    Zelkctl(dir, {"import", "--db", dir + "/ac.db", dir + "/rules.json"}, 1);
}
