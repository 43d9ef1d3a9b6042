// The records of the server's two documents: the repository metadata ("scripts-meta.xml", root
// `ScriptsRepoMetaRoot`) and the data document of one script (root `ScriptRoot`).
//
// Plain values. Every leaf is text, exactly as the document has it. A member's type says whether
// its key may be missing: `std::optional` may, anything else is required, and one missing required
// key anywhere fails the whole document. `fields()` lists a record's fields once, in declaration
// order; decoding and encoding both run from it. What is exported here is for the command, which
// publishes these documents.

#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "MarkupParser.h"
#include "support/KeyedCoding.h"

namespace VarnScriptRepository {

// ---- Repository metadata document ------------------------------------------------------------

/// Where a script's data document lies on the server.
struct ScriptRepoPath {
  std::string filepath;  ///< server path: "/client-data/7/scriptrepo/42.xml"

  static constexpr auto fields() {
    return std::tuple{field("filepath", &ScriptRepoPath::filepath)};
  }
  static const MarkupParser::RecordSchema& schema();
  bool operator==(const ScriptRepoPath&) const = default;
};

/// One script as the server lists it.
struct ScriptRepositoryMeta {
  std::optional<std::string> scriptName;  ///< display name
  std::optional<std::string> description;
  std::string scriptID;                      ///< the key of every look-up
  std::optional<std::string> scriptFile;     ///< the file's name as the server knows it
  std::optional<std::string> dbUpdatedTime;  ///< last database update of the entry
  std::string fileID;                        ///< names the `VyFile` in the data document
  std::optional<std::string> customerID;
  std::optional<std::string> osPlatform;  ///< never converted to an `OSPlatform`
  std::string modifiedTime;               ///< version stamp, compared as text
  std::optional<std::string> createdTime;
  std::optional<std::string> encType;                            ///< carried, not interpreted
  std::optional<std::vector<ScriptRepoPath>> scriptPathMapping;  ///< the first one is used

  static constexpr auto fields() {
    return std::tuple{field("script_name", &ScriptRepositoryMeta::scriptName),
                      field("description", &ScriptRepositoryMeta::description),
                      field("script_id", &ScriptRepositoryMeta::scriptID),
                      field("script_file", &ScriptRepositoryMeta::scriptFile),
                      field("db_updated_time", &ScriptRepositoryMeta::dbUpdatedTime),
                      field("file_id", &ScriptRepositoryMeta::fileID),
                      field("customer_id", &ScriptRepositoryMeta::customerID),
                      field("os_platform", &ScriptRepositoryMeta::osPlatform),
                      field("modified_time", &ScriptRepositoryMeta::modifiedTime),
                      field("created_time", &ScriptRepositoryMeta::createdTime),
                      field("enc_type", &ScriptRepositoryMeta::encType),
                      field("ScriptPathMapping", &ScriptRepositoryMeta::scriptPathMapping)};
  }
  static const MarkupParser::RecordSchema& schema();
  bool operator==(const ScriptRepositoryMeta&) const = default;
};

/// The container of all entries.
struct ScriptRepoAllMetaData {
  std::vector<ScriptRepositoryMeta> scriptRepo;

  static constexpr auto fields() {
    return std::tuple{field("ScriptRepo", &ScriptRepoAllMetaData::scriptRepo)};
  }
  static const MarkupParser::RecordSchema& schema();

  /// The ID of every entry, in document order, duplicates kept.
  [[nodiscard]] std::vector<std::string> getAllAvailableScriptIDs() const;

  bool operator==(const ScriptRepoAllMetaData&) const = default;
};

/// The metadata document as a whole.
struct ScriptsRepoMetaRoot {
  std::vector<ScriptRepoAllMetaData> scriptsMeta;  ///< the top element

  static constexpr auto fields() {
    return std::tuple{field("scripts-meta", &ScriptsRepoMetaRoot::scriptsMeta)};
  }
  static const MarkupParser::RecordSchema& schema();
  bool operator==(const ScriptsRepoMetaRoot&) const = default;
};

// ---- Data document of one script -------------------------------------------------------------

/// One script's definition.
struct ScriptRepo {
  std::string scriptID;
  std::string scriptName;  ///< file name; its extension selects the interpreter
  std::string fileID;
  std::string dbUpdatedTime;
  std::string customerID;
  std::string scriptType;
  std::string description;
  std::string osPlatform;
  std::string createdTime;
  std::string scriptFile;
  std::string scriptArgs;  ///< argument text, split when the script runs
  std::string exitCode;    ///< accepted exit codes, separated by commas
  std::string modifiedTime;

  static constexpr auto fields() {
    return std::tuple{field("script_id", &ScriptRepo::scriptID),
                      field("script_name", &ScriptRepo::scriptName),
                      field("file_id", &ScriptRepo::fileID),
                      field("db_updated_time", &ScriptRepo::dbUpdatedTime),
                      field("customer_id", &ScriptRepo::customerID),
                      field("script_type", &ScriptRepo::scriptType),
                      field("description", &ScriptRepo::description),
                      field("os_platform", &ScriptRepo::osPlatform),
                      field("created_time", &ScriptRepo::createdTime),
                      field("script_file", &ScriptRepo::scriptFile),
                      field("script_args", &ScriptRepo::scriptArgs),
                      field("script_mul_exit_code", &ScriptRepo::exitCode),
                      field("modified_time", &ScriptRepo::modifiedTime)};
  }
  static const MarkupParser::RecordSchema& schema();
  bool operator==(const ScriptRepo&) const = default;
};

/// One checksum record.
struct ChecksumValue {
  std::string downloadURLChecksum;
  std::string checksumID;    ///< the ID by which a `CSToVyFile` refers to this record
  std::string checksumType;  ///< name of the algorithm, handed on as it stands
  std::string downloadURL;
  std::string checksumVal;  ///< expected value, handed on as it stands

  static constexpr auto fields() {
    return std::tuple{field("download_url_checksum", &ChecksumValue::downloadURLChecksum),
                      field("checksum_id", &ChecksumValue::checksumID),
                      field("checksum_type", &ChecksumValue::checksumType),
                      field("download_url", &ChecksumValue::downloadURL),
                      field("checksum_val", &ChecksumValue::checksumVal)};
  }
  static const MarkupParser::RecordSchema& schema();
  bool operator==(const ChecksumValue&) const = default;
};

/// The link from a file to a checksum record.
struct CSToVyFile {
  std::string checksumID;

  static constexpr auto fields() {
    return std::tuple{field("checksum_id", &CSToVyFile::checksumID)};
  }
  static const MarkupParser::RecordSchema& schema();
  bool operator==(const CSToVyFile&) const = default;
};

/// One downloadable file.
struct VyFile {
  std::string fileStatusRemarks;
  std::string contentType;
  std::string fileID;
  std::string moduleName;
  std::string customerID;
  std::string contentLength;       ///< carried, not interpreted as a number
  std::string fileSystemLocation;  ///< location on the server, in its own backslash notation
  std::string fileName;            ///< name under which the file is stored locally
  std::string expiryTime;
  std::string fileStatus;
  std::vector<CSToVyFile> csToVyFiles;  ///< the first one is used

  static constexpr auto fields() {
    return std::tuple{field("file_status_remarks", &VyFile::fileStatusRemarks),
                      field("content_type", &VyFile::contentType),
                      field("file_id", &VyFile::fileID),
                      field("module_name", &VyFile::moduleName),
                      field("customer_id", &VyFile::customerID),
                      field("content_length", &VyFile::contentLength),
                      field("file_system_location", &VyFile::fileSystemLocation),
                      field("file_name", &VyFile::fileName),
                      field("expiry_time", &VyFile::expiryTime),
                      field("file_status", &VyFile::fileStatus),
                      field("CSToVyFiles", &VyFile::csToVyFiles)};
  }
  static const MarkupParser::RecordSchema& schema();
  bool operator==(const VyFile&) const = default;
};

/// The body of one script's data document.
struct ScriptItem {
  std::vector<ScriptRepo> scriptRepo;
  std::vector<ChecksumValue> checksumValues;
  std::vector<VyFile> files;

  static constexpr auto fields() {
    return std::tuple{field("ScriptRepo", &ScriptItem::scriptRepo),
                      field("ChecksumValues", &ScriptItem::checksumValues),
                      field("VyFiles", &ScriptItem::files)};
  }
  static const MarkupParser::RecordSchema& schema();

  /// The first file whose ID equals `fileID` as text, or nothing.
  [[nodiscard]] std::optional<VyFile> getFileData(const std::string& fileID) const;

  /// The first definition whose script ID equals `scriptID` as text, or nothing.
  [[nodiscard]] std::optional<ScriptRepo> getScriptRepo(const std::string& scriptID) const;

  bool operator==(const ScriptItem&) const = default;
};

/// The data document as a whole.
struct ScriptRoot {
  std::vector<ScriptItem> script;  ///< the top element

  static constexpr auto fields() { return std::tuple{field("script", &ScriptRoot::script)}; }
  static const MarkupParser::RecordSchema& schema();
  bool operator==(const ScriptRoot&) const = default;
};

// ---- Vocabulary ------------------------------------------------------------------------------

/// The platforms that `os_platform` can name. Nothing converts that text into this.
class OSPlatform {
 public:
  enum Case { macOS };

  // Implicit, so that a case stands for its platform.
  constexpr OSPlatform(Case value) : case_(value) {}

  /// The platform with exactly this raw value ("Mac"), or nothing.
  [[nodiscard]] static std::optional<OSPlatform> fromRawValue(const std::string& rawValue);
  [[nodiscard]] std::string rawValue() const;

  bool operator==(const OSPlatform&) const = default;

 private:
  Case case_;
};

}  // namespace VarnScriptRepository
