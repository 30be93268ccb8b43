// A private copy of a policy database for commands that only ask questions
// (check, replay): the engine counts trust-rule hits, stores approved drift
// and writes its settings as it decides, and a what-if must leave the real
// database as it found it.
#ifndef ZELK_TOOLS_ZELKCTL_SNAPSHOT_H_
#define ZELK_TOOLS_ZELKCTL_SNAPSHOT_H_

#include <string>

namespace zelkctl {

class Snapshot {
  public:
    Snapshot() = default;
    ~Snapshot();
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    // Copies `dbPath` (with what its write-ahead log holds) into a fresh
    // scratch folder.  A missing or unreadable database is an error: asking
    // the engine would create an empty one and answer from nothing.
    bool Take(const std::string& dbPath, std::string& error);
    // A scratch folder for a database the engine creates.
    bool Empty(std::string& error);
    const std::string& Path() const { return m_Path; }

  private:
    std::string m_Dir;
    std::string m_Path;
};

// Whether `dbPath` names an existing file; prints the error otherwise.
bool DatabaseExists(const std::string& dbPath);

}  // namespace zelkctl

#endif  // ZELK_TOOLS_ZELKCTL_SNAPSHOT_H_
