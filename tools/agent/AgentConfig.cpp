#include "AgentConfig.h"

#include <ini.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace zelkagent {

namespace {

struct ParseState {
    const std::vector<ConfigKey>* keys;
    ConfigValues* values;
    std::string problem;  // set by the handler when it refuses a line
    int lines = 0;        // lines accepted, to name the line of a refusal
};

bool ParseBool(const std::string& text, bool& out) {
    static const char* const yes[] = {"true", "yes", "on", "1"};
    static const char* const no[] = {"false", "no", "off", "0"};
    for (const char* word : yes) {
        if (text == word) {
            out = true;
            return true;
        }
    }
    for (const char* word : no) {
        if (text == word) {
            out = false;
            return true;
        }
    }
    return false;
}

bool ParseUnsigned(const std::string& text, uint64_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = strtoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') {
        return false;
    }
    out = value;
    return true;
}

// Checks and stores one key; returns the reason when the value is refused.
std::string Apply(const ConfigKey& key, const std::string& value, ConfigValue& out) {
    switch (key.kind) {
        case ConfigKey::kText:
            out.text = value;
            return "";
        case ConfigKey::kBool:
            if (!ParseBool(value, out.flag)) {
                return "'" + value + "' is not true or false";
            }
            out.text = out.flag ? "true" : "false";
            return "";
        case ConfigKey::kUnsigned:
            if (!ParseUnsigned(value, out.number) || out.number < key.min || out.number > key.max) {
                return "'" + value + "' is not a whole number from " + std::to_string(key.min) +
                       " to " + std::to_string(key.max);
            }
            out.text = value;
            return "";
        case ConfigKey::kChoice:
            for (const std::string& choice : key.choices) {
                if (value == choice) {
                    out.text = value;
                    return "";
                }
            }
            {
                std::string all;
                for (const std::string& choice : key.choices) {
                    all += (all.empty() ? "" : ", ") + choice;
                }
                return "'" + value + "' is not one of " + all;
            }
        case ConfigKey::kList: {
            std::istringstream words(value);
            std::string word;
            while (words >> word) {
                out.words.push_back(word);
            }
            return "";
        }
    }
    return "unusable value";
}

int Handler(void* user, const char* section, const char* name, const char* value) {
    ParseState& state = *static_cast<ParseState*>(user);
    if (section != nullptr && section[0] != '\0') {
        state.problem = "sections are not used (found [" + std::string(section) + "])";
        return 0;
    }
    for (const ConfigKey& key : *state.keys) {
        if (strcmp(key.name, name) == 0) {
            ConfigValue& out = (*state.values)[name];
            const std::string reason = Apply(key, value != nullptr ? value : "", out);
            if (!reason.empty()) {
                state.problem = std::string(name) + ": " + reason;
                return 0;
            }
            return 1;
        }
    }
    state.problem = "unknown key '" + std::string(name) + "'";
    return 0;
}

bool Finish(int rc, const std::string& origin, ParseState& state, ConfigValues& values,
            std::string& error) {
    if (rc == 0) {
        return true;
    }
    values.clear();
    if (rc < 0) {
        error = origin + ": cannot read: " + strerror(errno);
    } else {
        error = origin + ":" + std::to_string(rc) + ": " +
                (state.problem.empty() ? std::string("not a \"key = value\" line") : state.problem);
    }
    return false;
}

}  // namespace

bool ReadConfigFile(const std::string& path, const std::vector<ConfigKey>& keys,
                    ConfigValues& values, std::string& error) {
    values.clear();
    ParseState state{&keys, &values, "", 0};
    errno = 0;
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        error = path + ": cannot read: " + strerror(errno);
        return false;
    }
    const int rc = ini_parse_file(file, &Handler, &state);
    fclose(file);
    return Finish(rc, path, state, values, error);
}

bool ReadConfigText(const std::string& text, const std::string& origin,
                    const std::vector<ConfigKey>& keys, ConfigValues& values, std::string& error) {
    values.clear();
    ParseState state{&keys, &values, "", 0};
    return Finish(ini_parse_string(text.c_str(), &Handler, &state), origin, state, values, error);
}

}  // namespace zelkagent
