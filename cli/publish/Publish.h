// The command `publish`: turns a directory of scripts into the tree that a server serves.
//
// The list of scripts is the one file that changes. Everything else has a name made of its bytes,
// is in its place before a list names it, and stays at least until that list has been replaced
// twice; so a client that reads while this runs gets the old state or the new one. The signatures
// of a list lie under its digest, in their place before it is.

#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Settings.h"
#include "publish/SigningOptions.h"

namespace VarnScripts {

struct CommandLine;

/// What `publish` is asked for on the command line.
struct PublishOptions {
  std::string sourceDirectory;  ///< empty: the published list alone is signed anew
  std::string outputDirectory;
  /// How long content stays that has dropped out of the list; absent: until the next one does.
  std::optional<std::chrono::seconds> keepFor;
  bool strict = false;                ///< refuse what is a warning otherwise
  bool check = false;                 ///< look, and write nothing
  bool allowRemoval = false;          ///< drop many scripts or all, replace a tree of others
  std::optional<std::string> digest;  ///< wins over the manifest's
  publishing::SigningOptions signing;
};

/// Publishes what `line.publish` asks for, for `settings.agent.customerID`. Findings go to standard
/// error, what becomes of each script and the outcome to standard output. The exit status: 0
/// published, or nothing to change; 2 refused, and the output is as it was; 3 the output could not
/// be read or written, and then the list is the old one or the new one; 4 when only looking, and
/// the output is not what publishing would make of it.
[[nodiscard]] int publish(const CommandLine& line, const Settings& settings);

}  // namespace VarnScripts
