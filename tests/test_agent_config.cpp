// The agent's configuration file: every kind of key, and errors that name the
// line, for unknown keys, bad values and lines that are not "key = value".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "AgentConfig.h"
#include "TestUtil.h"

namespace {

using zelkagent::ConfigKey;
using zelkagent::ConfigValues;

const std::vector<ConfigKey>& Keys() {
    static const std::vector<ConfigKey> keys = {
        {"database", ConfigKey::kText},
        {"watch", ConfigKey::kList},
        {"fail_closed", ConfigKey::kBool},
        {"workers", ConfigKey::kUnsigned, 1, 64},
        {"mode", ConfigKey::kChoice, 0, 0, {"log-only", "lockdown", "permissive"}},
    };
    return keys;
}

TEST(AgentConfig, ReadsEveryKindOfKey) {
    const std::string path = zelktest::ScratchDir() + "/zelk-agent.conf";
    zelktest::WriteFile(path,
                        "# comment\n"
                        "; another\n"
                        "database = /var/lib/zelk/ac.db\n"
                        "\n"
                        "watch = /opt /usr/local/bin\n"
                        "watch = /srv\n"
                        "fail_closed = yes\n"
                        "workers = 8\n"
                        "mode = lockdown\n");
    ConfigValues values;
    std::string error;
    ASSERT_TRUE(zelkagent::ReadConfigFile(path, Keys(), values, error)) << error;
    EXPECT_EQ(values["database"].text, "/var/lib/zelk/ac.db");
    EXPECT_EQ(values["watch"].words, (std::vector<std::string>{"/opt", "/usr/local/bin", "/srv"}));
    EXPECT_TRUE(values["fail_closed"].flag);
    EXPECT_EQ(values["workers"].number, 8u);
    EXPECT_EQ(values["mode"].text, "lockdown");
}

TEST(AgentConfig, ErrorsNameTheLine) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"database = x\ncolour = blue\n", "conf:2: unknown key 'colour'"},
        {"workers = 0\n", "conf:1: workers: '0' is not a whole number from 1 to 64"},
        {"\n\nworkers = 4x\n", "conf:3: workers: '4x' is not a whole number from 1 to 64"},
        {"fail_closed = maybe\n", "conf:1: fail_closed: 'maybe' is not true or false"},
        {"mode = strict\n", "conf:1: mode: 'strict' is not one of log-only, lockdown, permissive"},
        {"database = x\njust words\n", "conf:2: not a \"key = value\" line"},
        {"[agent]\ndatabase = x\n", "conf:2: sections are not used (found [agent])"},
    };
    for (const auto& c : cases) {
        ConfigValues values;
        std::string error;
        EXPECT_FALSE(zelkagent::ReadConfigText(c.text, "conf", Keys(), values, error)) << c.text;
        EXPECT_EQ(error, c.message);
        EXPECT_TRUE(values.empty());
    }
    ConfigValues values;
    std::string error;
    EXPECT_FALSE(
        zelkagent::ReadConfigFile(zelktest::ScratchDir() + "/missing.conf", Keys(), values, error));
    EXPECT_NE(error.find("cannot read"), std::string::npos) << error;
}

}  // namespace
