// Which files belong in the inventory, judged by name as the engine judges a
// drifted file: no extension, a shared library, a versioned name (a digit in
// the extension) or an executable extension.  The engine does not export this
// rule, so the table here mirrors its executable-extension list; keep the two
// in step when either changes.
#ifndef ZELK_TOOLS_HOSTKIT_PERSISTRULE_H_
#define ZELK_TOOLS_HOSTKIT_PERSISTRULE_H_

#include <string>

namespace hostkit {

// `fileName` is the last path component.
bool ShouldPersistFile(const std::string& fileName);

}  // namespace hostkit

#endif  // ZELK_TOOLS_HOSTKIT_PERSISTRULE_H_
