// A directory of scripts with its manifest, looked at from end to end: everything that clients
// could not use is a refusal, everything that they would use in another way than meant is a
// warning. Nothing is written here. Any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Digest.h"
#include "Settings.h"
#include "publish/Findings.h"
#include "publish/Manifest.h"

namespace VarnScripts::publishing {

/// One script that can be published.
struct SourceScript {
  ManifestScript entry;
  std::string extension;  ///< selects the interpreter: "sh"
  std::size_t size;       ///< of the script file, in bytes
  std::string sha256;     ///< of the script file
  std::string checksum;   ///< of the script file, by the source's digest
};

struct Source {
  AgentUtils::DigestKind digest;
  std::vector<SourceScript> scripts;  ///< in the manifest's order
};

/// What a source is read with.
struct SourceOptions {
  std::string directory;              ///< as it was given; messages show it
  std::optional<std::string> digest;  ///< wins over the manifest's
  bool allowRemoval = false;          ///< take a manifest without a script
  std::uint64_t largestScript = Settings().agent.maxDownload;  ///< in bytes
};

/// Reads and checks the manifest and every script. The result is complete when `findings` has got
/// no refusal. Throws `std::runtime_error` when the cryptography library lacks a digest.
[[nodiscard]] Source readSource(const SourceOptions& options, Findings& findings);

/// What keeps `customer` from being a directory of the server's tree and a part of its locations,
/// or nothing.
[[nodiscard]] std::optional<std::string> complaintAboutCustomer(const std::string& customer);

}  // namespace VarnScripts::publishing
