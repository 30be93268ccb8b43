// The in-memory trust-rule index against the lookup statement itself: over
// thousands of generated rules, user lists and events, the index must name
// the same first matching rule as the statement over the tables followed by
// the process and path tests, for every trust type.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <random>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKMatch.h"
#include "ZELKTrustRuleIndex.h"
#include "zelk.h"

namespace {

struct Event {
    std::string processName, name, user, group, signer, product, company;
    SHA256Hash sha256;
    std::string issuer[IssuerMetaArrayUtil::kCount];
};

// The lookup as the statement over the tables answers it: candidate rows in
// id order, then the process pattern and the path list.
int64_t ReferenceLookup(sqlite3* db, unsigned trustType, const Event& e) {
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, LookupTrustRuleSQL, -1, &stmt, nullptr), SQLITE_OK);
    auto index = [stmt](const char* name) { return sqlite3_bind_parameter_index(stmt, name); };
    auto text = [&](const char* name, const std::string& value) {
        if (value.empty()) {
            sqlite3_bind_null(stmt, index(name));
        } else {
            sqlite3_bind_text(stmt, index(name), value.c_str(), -1, SQLITE_TRANSIENT);
        }
    };
    sqlite3_bind_text(stmt, index(":processName"), e.processName.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(stmt, index(":trustType"), trustType);
    text(":signerName", e.signer);
    text(":productName", e.product);
    text(":companyName", e.company);
    if (e.sha256.HasBytes()) {
        sqlite3_bind_blob(stmt, index(":sha256"), e.sha256.Bytes(), e.sha256.Length(),
                          SQLITE_TRANSIENT);
    } else {
        sqlite3_bind_null(stmt, index(":sha256"));
    }
    for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
        text(IssuerMetaArrayUtil::kBind[i], e.issuer[i]);
    }
    sqlite3_bind_text(stmt, index(":procUser"), e.user.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, index(":procGroup"), e.group.c_str(), -1, SQLITE_TRANSIENT);
    int64_t found = 0;
    while (found == 0 && sqlite3_step(stmt) == SQLITE_ROW) {
        const unsigned char* p = sqlite3_column_text(stmt, 3);
        std::string process = p ? reinterpret_cast<const char*>(p) : "";
        const bool processMatches = sqlite3_column_type(stmt, 3) == SQLITE_NULL ||
                                    process == e.processName ||
                                    (process.find_first_of("*?") != std::string::npos &&
                                     MatchFunction(e.processName, process));
        if (!processMatches) {
            continue;
        }
        const unsigned char* q = sqlite3_column_text(stmt, 1);
        std::string paths = q ? reinterpret_cast<const char*>(q) : "";
        std::string name = e.name;
        if (!paths.empty() && !MatchEventPathWithRulePath(name, paths)) {
            continue;
        }
        found = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
    return found;
}

int64_t IndexLookup(const ZELKTrustRuleIndex& index, unsigned trustType, const Event& e) {
    ZELKTrustRuleIndex::Probe probe{e.processName, e.name,    e.user,   e.group, e.signer,
                                    e.product,     e.company, e.sha256, e.issuer};
    const ZELKTrustRuleIndex::Rule* rule = index.Find(trustType, probe);
    return rule != nullptr ? rule->id : 0;
}

template <typename T>
const T& Pick(std::mt19937& rng, const std::vector<T>& from) {
    return from[std::uniform_int_distribution<size_t>(0, from.size() - 1)(rng)];
}

// A small vocabulary, so rules and events meet often.
const std::vector<std::string> kProcesses = {"/usr/bin/apt",      "/usr/bin/dpkg",    "/bin/sh",
                                             "/usr/lib/x/helper", "/opt/app/bin/run", ""};
const std::vector<std::string> kProcessPatterns = {
    "/usr/bin/*", "/usr/**", "/opt/app/bin/r?n", "*", "/bin/s?", "/usr/lib/*/helper", "/opt/"};
const std::vector<std::string> kTargets = {
    "/usr/bin/ls",    "/opt/app/bin/run", "/opt/app/lib/a.so", "/home/u/x.sh",
    "/usr/lib/x/y/z", "/srv/data/tool",   "relative/name",     ""};
const std::vector<std::string> kPathLists = {
    "/usr/bin",    "/opt/app/**",   "/opt/*/bin/*;/srv/", "/home/*/x.sh",
    ";;",          "/usr/lib/**/z", "x;;/opt/app/lib/*;", "*",
    "/usr/bin/l?", "/srv/data/",    "/opt/app/bin/run",   "relative/*"};
const std::vector<std::string> kUsers = {"root", "alice", "bob", ""};
const std::vector<std::string> kGroups = {"root", "adm", "wheel,adm", "", "staff"};
const std::vector<std::string> kSigners = {"Debian", "Vendor", ""};

std::string Quote(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        out += c;
        if (c == '\'') {
            out += '\'';
        }
    }
    return out + "'";
}

// NULL now and then, else one of the texts.
std::string MaybeText(std::mt19937& rng, const std::vector<std::string>& from, int nullPercent) {
    if (std::uniform_int_distribution<int>(0, 99)(rng) < nullPercent) {
        return "NULL";
    }
    return Quote(Pick(rng, from));
}

std::string DigestHex(int which) {
    std::string hex;
    for (int i = 0; i < 32; ++i) {
        static const char* digits = "0123456789abcdef";
        hex += digits[(which + i) % 16];
        hex += digits[(which * 7 + i) % 16];
    }
    return hex;
}

TEST(TrustRuleIndex, AnswersAsTheLookupStatementOverGeneratedRules) {
    const std::string path = zelktest::ScratchDir() + "/ac.db";
    zelktest::BuildDatabase(path, ZELKDAL::kSchemaVersion);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    std::mt19937 rng(20261124);
    auto percent = [&rng](int p) { return std::uniform_int_distribution<int>(0, 99)(rng) < p; };

    std::string sql = "BEGIN;";
    for (const char* id : {"admins", "devs", "empty"}) {
        for (const std::string& user : kUsers) {
            if (std::string(id) != "empty" && percent(50)) {
                sql += "INSERT INTO UserList(id, user) VALUES(" + Quote(id) + ", " + Quote(user) +
                       ");";
            }
        }
    }
    constexpr int kRules = 2000;
    for (int i = 0; i < kRules; ++i) {
        std::string process = "NULL";
        const bool plainProcess = percent(50);
        if (plainProcess) {
            process = Quote(Pick(rng, kProcesses));
        } else if (percent(70)) {
            process = Quote(Pick(rng, kProcessPatterns));
        }
        const std::string paths = percent(80) ? Quote(Pick(rng, kPathLists)) : "NULL";
        const std::string type = std::to_string(std::uniform_int_distribution<int>(0, 4)(rng));
        const std::string sha = percent(5) ? "x'" + DigestHex(i % 3) + "'" : "NULL";
        const std::string user = percent(15) ? Quote(Pick(rng, kUsers)) : "NULL";
        const std::string list =
            percent(15)
                ? Quote(Pick(rng, std::vector<std::string>{"admins", "devs", "empty", "none"}))
                : "NULL";
        sql +=
            "INSERT INTO TrustRules(processName, paths, trustType, signerName, sha256, "
            "issuerCN, ruleset, procUser, procGroup, userList) VALUES(" +
            process + ", " + paths + ", " + type + ", " +
            // Only rules tied to one process go without a signer, so some
            // events match no rule at all.
            (plainProcess ? MaybeText(rng, kSigners, 50) : Quote(Pick(rng, kSigners))) + ", " +
            sha + ", " + MaybeText(rng, kSigners, 95) + ", 'rs" + std::to_string(i % 5) + "', " +
            user + ", " + MaybeText(rng, kGroups, 60) + ", " + list + ");";
    }
    sql += "COMMIT;";
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db);

    std::string error;
    std::shared_ptr<const ZELKTrustRuleIndex> index = ZELKTrustRuleIndex::Load(db, error);
    ASSERT_NE(index, nullptr) << error;
    EXPECT_EQ(index->RuleCount(), static_cast<size_t>(kRules));

    constexpr int kEvents = 800;
    int matched = 0;
    for (int i = 0; i < kEvents; ++i) {
        Event e;
        e.processName = percent(20) ? "/weird/proc" : Pick(rng, kProcesses);
        e.name = Pick(rng, kTargets);
        e.user = Pick(rng, kUsers);
        e.group = Pick(rng, kGroups);
        e.signer = Pick(rng, kSigners);
        e.issuer[0] = Pick(rng, kSigners);
        if (percent(30)) {
            e.sha256.SetHash(DigestHex(i % 3));
        }
        for (unsigned type = 0; type <= 4; ++type) {
            const int64_t want = ReferenceLookup(db, type, e);
            ASSERT_EQ(IndexLookup(*index, type, e), want)
                << "type " << type << " process '" << e.processName << "' target '" << e.name
                << "' user '" << e.user << "' group '" << e.group << "'";
            matched += want != 0;
        }
    }
    // The vocabulary makes both answers common.
    EXPECT_GT(matched, kEvents);
    EXPECT_LT(matched, kEvents * 5) << matched;
    sqlite3_close(db);
}

// Values a host may write behind the engine's back: texts in the digest
// column, blobs in text columns, odd trust types.  They compare as SQLite
// compares them.
TEST(TrustRuleIndex, OddColumnValuesCompareAsSqliteCompares) {
    const std::string path = zelktest::ScratchDir() + "/ac.db";
    zelktest::BuildDatabase(path, ZELKDAL::kSchemaVersion);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    const std::string hex = DigestHex(1);
    const std::string sql =
        "INSERT INTO TrustRules(processName, trustType, sha256) VALUES('/bin/sh', 2, '" + hex +
        "');"  // text digest: never equals the bound blob
        "INSERT INTO TrustRules(processName, trustType) VALUES(x'2f62696e2f7368', 2);"
        "INSERT INTO TrustRules(processName, trustType) VALUES('/bin/sh', 'two');"
        "INSERT INTO TrustRules(processName, trustType) VALUES('/bin/sh', 2.5);"
        "INSERT INTO TrustRules(processName, trustType, procGroup) VALUES('/bin/sh', 2, '');"
        "INSERT INTO TrustRules(processName, trustType, userList, paths) VALUES('/bin/*', 0, "
        "x'6c', '/opt/');"
        "INSERT INTO UserList(id, user) VALUES(x'6c', 'root');";
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    std::string error;
    auto index = ZELKTrustRuleIndex::Load(db, error);
    ASSERT_NE(index, nullptr) << error;
    Event e;
    e.processName = "/bin/sh";
    e.name = "/opt/tool";
    e.user = "root";
    e.sha256.SetHash(hex);
    for (unsigned type = 0; type <= 4; ++type) {
        EXPECT_EQ(IndexLookup(*index, type, e), ReferenceLookup(db, type, e)) << type;
    }
    EXPECT_EQ(IndexLookup(*index, 2, e), 5);  // the empty group is found in any group text
    e.user = "bob";
    EXPECT_EQ(IndexLookup(*index, 3, e), ReferenceLookup(db, 3, e));
    sqlite3_close(db);
}

}  // namespace

namespace {

// A rule that another connection writes behind the engine's back is used at
// the next decision, as the lookup statement over the table would use it.
TEST(TrustRuleIndex, RulesWrittenByAnotherConnectionAreUsed) {
    const std::string path = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(path, ZELK_LOG_ERROR);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(set_ruleset_buffer(false, R"({"Trustrules": [{"processName": "/bin/none",
                                             "trustType": 2}]})",
                                 "siteTrustRules"),
              ZELK_STATUS_SUCCESS);
    ac_event event;
    event.processName = "/bin/sh";
    event.name = "/opt/tool";
    ZELKDAL& dal = ZELKDAL::GetDAL();
    EXPECT_FALSE(dal.IsFoundInTrustRules(2, event));

    zelktest::Db other(path);
    other.Exec(
        "INSERT INTO TrustRules(processName, paths, trustType, ruleset) "
        "VALUES('/bin/sh', '/opt/', 2, 'behind');");
    EXPECT_TRUE(dal.IsFoundInTrustRules(2, event));
    EXPECT_EQ(event.ruleset, "behind");
    other.Exec("DELETE FROM TrustRules WHERE ruleset = 'behind';");
    ac_event again;
    again.processName = "/bin/sh";
    again.name = "/opt/tool";
    EXPECT_FALSE(dal.IsFoundInTrustRules(2, again));
    engine_stop();
}

}  // namespace
