// The checks of one script's values and text, one function per thing that can be wrong. Any thread.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "publish/Findings.h"
#include "publish/Manifest.h"

namespace VarnScripts::publishing {

/// The extension that gives `fileName` its interpreter: "sh" of "clean.sh"; nothing without one.
[[nodiscard]] std::optional<std::string> interpreterExtension(const std::string& fileName);

/// Refuses IDs that clients can't keep a document under. True when the ID can be used.
bool checkID(const ManifestText& id, const std::string& manifest, Findings& findings);

/// Refuses names that clients can't keep a file under, or that have no interpreter; warns of those
/// of modules, which other scripts would load. True when the name can be used.
bool checkFileName(const ManifestText& file, const std::string& manifest, Findings& findings);

/// Refuses texts that the documents can't carry.
void checkTexts(const ManifestScript& script, const std::string& manifest, Findings& findings);

/// Warns of accepted codes that no run can ever match.
void checkAcceptedCodes(const ManifestText& codes, const std::string& manifest, Findings& findings);

/// Warns of arguments with a quotation mark that is never closed.
void checkArguments(const ManifestText& arguments, const std::string& manifest, Findings& findings);

/// Warns of what the interpreter would stumble over in the script's own text, of a first line that
/// asks for something else than the computers start the script with, and of a script without
/// anything to run. `path` is shown.
void checkScriptText(const std::string& path, std::string_view extension, std::string_view bytes,
                     Findings& findings);

/// Warns of commands that a shell script for `platform` uses and that its computers do not have.
/// Only macOS is known, and what never comes with it; a script that asks which system it is on, or
/// whether the command is there, is left alone.
void checkCommands(const std::string& path, std::string_view extension, std::string_view platform,
                   std::string_view bytes, Findings& findings);

}  // namespace VarnScripts::publishing
