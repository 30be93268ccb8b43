// Event traces: one JSON object per line, each describing one host event.
// Keys (all optional but "type"):
//   type        event name (exec, mmap, create, ...) or raw code number
//   pid, size, result            numbers
//   mode, flags                  number, or text read as C does ("0755", "0x240")
//   isexec, dirty, symlink       true/false or 0/1
//   process, target, oldName, user, group, cmdline                 texts
//   processSigner, processCompany, processProduct,
//   fileSigner, fileCompany, fileProduct                           texts
//   processIssuer, fileIssuer    object with CN, C, S, L, O, OU texts
//   sha256, sha1, md5, processSha256                               hex digests
//   hash        true: digest the target file on disk (and take its size)
//   label       free text shown by tools, not sent to the engine
// Texts may name variables as ${NAME}; they are replaced from the map given to
// the parser, then from the environment.
#ifndef ZELK_TOOLS_HOSTKIT_TRACEPARSER_H_
#define ZELK_TOOLS_HOSTKIT_TRACEPARSER_H_

#include <map>
#include <string>
#include <vector>

#include "HostEvent.h"

namespace hostkit {

struct TraceLine {
    HostEvent event;
    std::string label;
    bool hashTarget = false;
    // Keys the parser did not know; the line is still usable.
    std::vector<std::string> warnings;
};

using TraceVariables = std::map<std::string, std::string>;

// Parses one line.  False with a one-line reason in `error` when the line is
// not a JSON object, lacks a usable "type", or has a value of the wrong kind.
bool ParseTraceLine(const std::string& line, const TraceVariables& vars, TraceLine& out,
                    std::string& error);

// True when the line is blank or a comment ("#" or "//" first), which traces
// may hold between events.
bool IsTraceFiller(const std::string& line);

// For a line with "hash": true, digests the target and fills its digests and,
// when the trace gave none, its size.  False with a reason when it cannot.
bool HashTraceTarget(TraceLine& line, std::string& error);

// Replaces ${NAME} references.  False when a name is neither in `vars` nor in
// the environment, or a reference is not closed.
bool ExpandVariables(const std::string& text, const TraceVariables& vars, std::string& out,
                     std::string& error);

}  // namespace hostkit

#endif  // ZELK_TOOLS_HOSTKIT_TRACEPARSER_H_
