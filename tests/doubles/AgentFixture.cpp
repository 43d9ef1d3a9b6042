#include "AgentFixture.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace doubles {

// ---- Files -----------------------------------------------------------------------------------

void writeFile(const std::string& path, const std::string& content) {
  makeDirectories(path.substr(0, path.rfind('/')));
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  if (!file.good()) throw std::runtime_error("cannot write " + path);
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(path, error);
}

void makeDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
}

void removeTree(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
}

// ---- Fixture ---------------------------------------------------------------------------------

AgentFixture::AgentFixture()
    : globals{directory.path() + "/agent", "7", directory.path() + "/data"},
      dataDirectory(directory.path() + "/agent/client-data/7/scripts-repository-data"),
      scriptsDirectory(directory.path() + "/agent/client-data/7/scripts-repository") {
  AgentUtils::gv_globvars = &globals;
  journal.reset();
  journal.abbreviate(directory.path() + "/agent", "<agent>");
  journal.abbreviate(directory.path() + "/data", "<data>");
  downloads.reset();
  refusesDirectories() = false;
  checksums.answers.clear();
  store.rows.clear();
  parser.calls.clear();
}

AgentFixture::~AgentFixture() { AgentUtils::gv_globvars = nullptr; }

// ---- Documents -------------------------------------------------------------------------------

std::string DataDocument::scriptRepo() const {
  return "ScriptRepo(script_id<" + scriptID + "> script_name<" + scriptName +
         "> file_id<other> db_updated_time<1> customer_id<8> script_type<py> description<> "
         "os_platform<Windows> "
         "created_time<1> script_file<other.pl> script_args<" +
         scriptArgs + "> modified_time<4> script_mul_exit_code<" + exitCode + ">)";
}

std::string DataDocument::checksumValue() const {
  return "ChecksumValues(download_url_checksum<9> checksum_id<" + checksumID + "> checksum_type<" +
         checksumType + "> download_url</elsewhere> checksum_val<" + checksumVal + ">)";
}

std::string DataDocument::file() const {
  const std::string link =
      linkedChecksumID.empty() ? "" : " CSToVyFiles(checksum_id<" + linkedChecksumID + ">)";
  return "VyFiles(file_status_remarks<> content_type<> file_id<" + fileID +
         "> module_name<> customer_id<8> content_length<9> file_system_location<" +
         fileSystemLocation + "> file_name<" + fileName + "> expiry_time<1> file_status<gone>" +
         link + ")";
}

std::string DataDocument::text() const {
  return "script(" + scriptRepo() + " " + checksumValue() + " " + file() + ")";
}

std::string metadataEntry(const std::string& scriptID, const std::string& modifiedTime,
                          const std::string& fileID) {
  return "ScriptRepo(script_name<other.py> script_id<" + scriptID +
         "> script_file<other.pl> customer_id<8> file_id<" + fileID +
         "> os_platform<Windows> modified_time<" + modifiedTime +
         "> created_time<1> enc_type<gzip> ScriptPathMapping(filepath</client-data/7/scriptrepo/" +
         scriptID + ".xml>))";
}

std::string metadataDocument(const std::string& entries) { return "scripts-meta(" + entries + ")"; }

}  // namespace doubles
