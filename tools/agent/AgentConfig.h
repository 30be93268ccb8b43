// The agent's configuration file: "key = value" lines (parsed with inih),
// checked against a table of the keys the agent knows.  Reading stops at the
// first problem, and the message names the file and line: an unknown key, a
// value that is not of the key's kind, a line that is not "key = value".
// Values given on the command line win; applying them is the caller's part.
#ifndef ZELK_AGENT_AGENTCONFIG_H_
#define ZELK_AGENT_AGENTCONFIG_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zelkagent {

struct ConfigKey {
    enum Kind { kText, kBool, kUnsigned, kChoice, kList };
    ConfigKey(const char* keyName, Kind keyKind, uint64_t low = 0, uint64_t high = 0,
              std::vector<std::string> words = {})
        : name(keyName), kind(keyKind), min(low), max(high), choices(std::move(words)) {}

    const char* name;
    Kind kind;
    uint64_t min, max;                 // kUnsigned: the allowed range
    std::vector<std::string> choices;  // kChoice: the allowed words
};

// One key's value as read; a kList key collects the words of every line that
// names it, in order.
struct ConfigValue {
    std::string text;                // kText, kChoice: as written; kBool: "true"/"false"
    uint64_t number = 0;             // kUnsigned
    bool flag = false;               // kBool
    std::vector<std::string> words;  // kList
};

using ConfigValues = std::map<std::string, ConfigValue>;

// Reads `path`.  False with `error` ("FILE:LINE: ...") on the first problem;
// `values` then holds nothing.
bool ReadConfigFile(const std::string& path, const std::vector<ConfigKey>& keys,
                    ConfigValues& values, std::string& error);
// The same for text in memory (`origin` names it in messages).
bool ReadConfigText(const std::string& text, const std::string& origin,
                    const std::vector<ConfigKey>& keys, ConfigValues& values, std::string& error);

}  // namespace zelkagent

#endif  // ZELK_AGENT_AGENTCONFIG_H_
