// Settings every host program of this tree reads from its command line the
// same way: log levels, the maintenance window, ruleset file specs, and the
// engine's status codes in words.
#ifndef ZELK_TOOLS_HOSTKIT_HOSTCONFIG_H_
#define ZELK_TOOLS_HOSTKIT_HOSTCONFIG_H_

#include <cstdint>
#include <string>

namespace hostkit {

// Parses "none", "error", "warning", "info", "trace" (each includes the more
// severe levels) or a number mask.  False for anything else.
bool ParseLogLevel(const std::string& text, unsigned& mask);

// "INFO", "WARNING", "ERROR", "TRACE" for a log level bit; "LOG" otherwise.
const char* LevelName(unsigned level);

// "engine not started", "database could not be opened", ...
std::string StatusText(uint32_t status);
// "<what>: <status in words> (0xC0000006)"
std::string StatusMessage(const std::string& what, uint32_t status);

// Milliseconds since the epoch, as the engine keeps its window times.
uint64_t NowMillis();

// Parses "START,END" in milliseconds since the epoch; either may be "now".
bool ParseWindow(const std::string& text, uint64_t& start, uint64_t& end);

// The ruleset name given to a file imported without one: its base name
// without a ".json" ending.
std::string DefaultRulesetName(const std::string& path);

// Splits "FILE[:NAME]".  A spec that names an existing file is a file name
// even when it holds a colon; without a name the default name is used.
void SplitRulesetSpec(const std::string& spec, std::string& file, std::string& name);

}  // namespace hostkit

#endif  // ZELK_TOOLS_HOSTKIT_HOSTCONFIG_H_
