// The manifest of a directory of scripts, "scripts.toml": which scripts there are and how each
// runs.
//
//     digest = "sha256"
//
//     [[script]]
//     id = "42"
//     file = "clean.sh"
//     arguments = "-a \"two words\""
//     accepted_codes = "0,3"
//
// Reads the form only; whether the values make sense is for `SourceScripts`. Any thread.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "publish/Findings.h"

namespace VarnScripts::publishing {

/// The manifest's name in the source directory.
inline constexpr const char* kManifestName = "scripts.toml";

/// A value of the manifest and the line it stands in; a value that is not given has the line of its
/// script, or 0 outside of one.
struct ManifestText {
  std::string value;
  std::size_t line = 0;
};

/// One `[[script]]` table.
struct ManifestScript {
  std::size_t line = 0;
  ManifestText id;
  ManifestText file;
  ManifestText arguments;
  ManifestText acceptedCodes;  ///< as the documents have it: "0,3"; a list of numbers is joined
  ManifestText name;           ///< the file's name when not given
  ManifestText description;
  ManifestText platform;
};

struct Manifest {
  ManifestText digest;  ///< empty when not given
  std::vector<ManifestScript> scripts;
};

/// The manifest in `text`. What can't be taken is a refusal in `findings`, placed in `file`; the
/// rest is in the result all the same, but for scripts without an ID or a file.
[[nodiscard]] Manifest parseManifest(const std::string& text, const std::string& file,
                                     Findings& findings);

}  // namespace VarnScripts::publishing
