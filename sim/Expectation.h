// Sim::Expectation: what one connection of one agent must be sent, worked out from the world's
// own plans and never read from the library's objects.
//
// At the connection it resolves the agent's profile from its name (its own, else the longest
// family name ending in "-" that starts it), cuts the template values from the name, decides
// which groups the template conditions keep, canonicalises every mount path and builds the table
// of mount paths with the parents added for creating mounts (that table depends on which
// directories stand at that moment: `isDir` is read by the constructor only). From these it
// knows, for every path the engine may send:
//   - why it may be sent: a path of a kept group; the parent of such a path that the profile also
//     lists (mounted with that entry's flags); a prefix mounted on the way to a deeper path ("r",
//     "wc" for a creating child, "fwc" for a directory that does not exist yet); an entry of a
//     directory mount ("r" when it stood when the mounter started, else the directory's own flags
//     without 'D' and 'B');
//   - with which user flags and type, so the exact letters: "w" (force without grant, or write
//     with grant) or "C", then "i", then "S", then "p" when the root flags hold 'N', else "np";
//     the type only for a creating mount;
//   - which paths a completed connection must have been sent: the root and every path of a kept
//     group that is not a directory mount.
// A profile changed while the agent stays connected adds a version (versionSeen), whether it was
// reloaded or one of its groups edited in place: the engine queues the groups of the version of
// its first pass, which is one of them, and reads a group's entries when it serves it, from that
// version or a later one. The paths and flags allowed are then those of any version (their
// union); a path is required when, whichever version the first pass saw, one of its kept groups
// holds the path in that version and in every later one that still has the group (a path removed
// from its group stays unrequired though a group added later has it: the engine may never have
// queued that one); with a single version both are exact. The switch to active drops
// the "peerReady" group from the engine, whose paths are then no longer required. Template values
// and the table of mount paths stay those of the connection, as the engine's do; the root flags are
// read live.
//
// Pure computation; single-threaded.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "sim/Plans.h"

namespace Sim {

class Expectation {
 public:
  // One way the engine may mount a path: the user flags and type it passes, and why.
  struct Source {
    std::string flags;
    std::string type;
    std::string why;
    auto operator<=>(Source const&) const = default;
  };
  using IsDir = std::function<bool(std::string const& path)>;

  // The profile that serves `agent`: its own, else the longest name ending in "-" that starts the
  // agent's name; "" when none does.
  static std::string profileFor(std::string const& agent,
                                std::map<std::string, ProfilePlan> const& plans);
  // `path` with every template key replaced by `value(key)`: a key starts at "%" and ends at the
  // next "%", "-", "/" or the end; "-" and "/" stay.
  static std::string substituted(std::string const& path,
                                 std::function<std::string(std::string const&)> const& value);
  // The letters after "flags=" of a mount with `userFlags`.
  static std::string letters(std::string const& userFlags, bool granted,
                             std::string const& rootFlags);

  // A connection of `agent` made now, served by `plan` (null: no profile serves it), on cell
  // `cellId`.
  Expectation(std::string agent, ProfilePlan const* plan, int cellId, IsDir const& isDir);

  std::string const& agent() const { return agent_; }
  std::string const& profile() const { return profile_; }
  // The reason the connection must be closed with as it is made; "" when it is to be served.
  std::string const& closeReason() const { return closeReason_; }
  std::map<std::string, std::string> const& values() const { return values_; }

  // Another version of the profile, seen while the agent stays connected.
  void versionSeen(ProfilePlan const& plan);
  std::size_t versions() const { return versions_.size(); }
  // The process became active while the agent is connected: its engine drops the "peerReady"
  // group, whose paths it may then never be sent.
  void peerReadyDropped();

  // Whether the engine may send `path` at all.
  bool allowed(std::string const& path) const;
  // What is wrong with sending `path` with `letters` and `type` now; "" when the engine may.
  std::string request(std::string const& path, std::string const& letters, std::string const& type,
                      bool granted, std::string const& rootFlags, bool exists) const;
  // Whether that request queued a conversion to "w" (every source it can come from asks to write).
  bool queuesConversion(std::string const& path, std::string const& letters,
                        std::string const& type, bool granted, std::string const& rootFlags,
                        bool exists) const;
  // Whether the engine may mount some path twice with other flags, and so close the connection
  // for an invalid mount profile: a path it may mount on two occasions (two groups, a group and
  // a child, two children, entries of a directory mount), one of them with 'w'.
  bool conflictPossible() const { return conflictPossible_; }
  // The paths a completed connection must have been sent, with why.
  std::map<std::string, std::string> const& required() const { return required_; }

 private:
  using Sources = std::set<Source>;

  void templateValues(ProfilePlan const& plan);
  std::string value(std::string const& key) const;
  std::string canonical(std::string const& path) const;
  bool kept(GroupPlan const& group) const;
  void mountPaths(ProfilePlan const& plan, IsDir const& isDir);
  // Recomputes what follows from the versions: the sources of every path and the required paths.
  void derive();
  Sources candidates(std::string const& path, bool exists) const;

  std::string const agent_;
  int const cellId_;
  std::string profile_;
  std::string closeReason_;
  std::map<std::string, std::string> values_;
  std::vector<ProfilePlan> versions_;
  std::map<std::string, Sources> mountPaths_;   // the engine's table: path -> possible entries
  std::map<std::string, Sources> nested_;       // mounted as a profile entry
  std::map<std::string, Sources> prefixes_;     // mounted on the way to a deeper path
  std::map<std::string, Sources> directories_;  // directory mounts: how their entries are mounted
  std::map<std::string, std::string> required_;
  bool conflictPossible_ = false;
  bool peerReadyDropped_ = false;
};

}  // namespace Sim
