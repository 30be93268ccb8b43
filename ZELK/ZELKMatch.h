// Rule path matching: whether an event's path is covered by the path list of
// a trust rule.  Both functions are stateless and safe to call from any
// thread without a lock.
#ifndef ZELK_ZELKMATCH_H_
#define ZELK_ZELKMATCH_H_

#include <string>

// Splits `rulePaths` at every ";", skips empty pieces and returns true at the
// first piece that MatchFunction accepts for `eventPath` (logged at TRACE).
// An empty or all-empty list matches nothing.  Neither argument is changed.
bool MatchEventPathWithRulePath(std::string& eventPath, std::string& rulePaths);

// Matches one pattern against one path, byte by byte and case-sensitive; "/"
// and "\" both count as separators.  True when `text` begins with `pattern`
// taken literally (so an empty pattern matches everything and a plain
// directory covers everything below it, and every name that merely starts
// with it).  Otherwise a pattern without "*" or "?" fails; one with wildcards
// is matched where "?" is one non-separator byte, "*" any run of
// non-separators, and "**" followed by a separator a directory wildcard that
// accepts anything up to the first separator it reaches and afterwards only
// positions that are separators.  A pattern ending in "**" is read as
// "<pattern>/*", one ending in a separator as "<pattern>*".
bool MatchFunction(std::string text, std::string pattern);

#endif  // ZELK_ZELKMATCH_H_
