// The policy directory: documents ordered manifest, rulesets, trust rules,
// the first of each kind replacing and the others adding; editor leftovers
// skipped; changes between two readings named.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PolicyDir.h"
#include "TestUtil.h"

namespace {

using zelkagent::DocumentKind;
using zelkagent::PolicyDocument;

TEST(PolicyDir, ImportOrderAndChanges) {
    const std::string dir = zelktest::ScratchDir();
    zelktest::WriteFile(dir + "/20-weekly.json", "{\"rules\":[]}");
    zelktest::WriteFile(dir + "/10-base.json", "{\"rules\":[]}");
    zelktest::WriteFile(dir + "/site-TrustRules.json", "{\"Trustrules\":[]}");
    zelktest::WriteFile(dir + "/Agent-Manifest.json", "{\"rules\":[]}");
    zelktest::WriteFile(dir + "/.hidden.json", "{}");
    zelktest::WriteFile(dir + "/10-base.json~", "{}");

    std::vector<PolicyDocument> first;
    std::string error;
    ASSERT_TRUE(zelkagent::ReadPolicyDir(dir, first, error)) << error;
    std::vector<std::string> order;
    std::vector<bool> incremental;
    for (const PolicyDocument& doc : first) {
        order.push_back(doc.name);
        incremental.push_back(doc.incremental);
    }
    EXPECT_EQ(order, (std::vector<std::string>{"Agent-Manifest.json", "10-base.json",
                                               "20-weekly.json", "site-TrustRules.json"}));
    EXPECT_EQ(incremental, (std::vector<bool>{false, false, true, false}));
    EXPECT_EQ(first[0].kind, DocumentKind::kAgentManifest);
    EXPECT_EQ(first[3].kind, DocumentKind::kTrustRules);
    EXPECT_EQ(zelkagent::DescribeChanges(first, first), "nothing changed");

    zelktest::WriteFile(dir + "/20-weekly.json", "{\"rules\":[{}]}");
    zelktest::WriteFile(dir + "/30-new.json", "{\"rules\":[]}");
    ASSERT_EQ(remove((dir + "/site-TrustRules.json").c_str()), 0);
    std::vector<PolicyDocument> second;
    ASSERT_TRUE(zelkagent::ReadPolicyDir(dir, second, error)) << error;
    EXPECT_EQ(zelkagent::DescribeChanges(first, second),
              "added 30-new.json; changed 20-weekly.json; removed site-TrustRules.json");

    std::vector<PolicyDocument> none;
    EXPECT_TRUE(zelkagent::ReadPolicyDir(dir + "/missing", none, error));
    EXPECT_TRUE(none.empty());
}

}  // namespace
