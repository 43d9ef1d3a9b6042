// The agent's utilities, as the library sees them: global settings, files and directories, the
// downloader, the checksum validator, and the store with root access.

#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "AgentStore.h"

namespace AgentUtils {

/// The agent's global settings. All texts are UTF-8 and are used as they stand.
struct GlobalVariables {
  /// The agent's base directory, an absolute path without a trailing slash: "/opt/agent".
  std::string vyagentBasePath{};
  /// The customer's ID: "7".
  std::string vyCustomerID{};
  /// The agent's data directory; absent when the agent has none.
  std::optional<std::string> vyagentDataDictPath{};
};

/// The global settings object. The agent sets it once, before the library's first operation, and
/// leaves it and what it points to alone from then on. The library aborts the process when it
/// needs the object and finds null.
extern const GlobalVariables* gv_globvars;

/// File operations with the agent's rights.
class FileUtils {
 public:
  /// Whether something exists at `atPath`: a file, a directory, or a link to one.
  [[nodiscard]] bool isFileExists(const std::string& atPath) const;

  /// Creates the directory `atPath`, and its missing parents when `withIntermediateDirectories`.
  /// True when the directory was created, or exists already and intermediates were asked for.
  bool createDirectory(const std::string& atPath, bool withIntermediateDirectories) const;
};

/// The downloader: fetches paths of the agent's configured server. One object serves one download
/// after another on one thread.
class HttpHandlermac {
 public:
  /// A downloader for the server that the agent is configured with.
  [[nodiscard]] static HttpHandlermac initWithServerInfo();

  /// Fetches the server path `fromURL` ("/client-data/7/scriptrepo/scripts-meta.xml", with or
  /// without a leading slash, not percent-encoded) to the local file `toPath`, with root rights.
  /// True when the whole file stands at `toPath`; false on any failure, and then the file that
  /// stood there is as it was. Blocks until done.
  [[nodiscard]] bool downloadFileWithRootPermission(const std::string& fromURL,
                                                    const std::string& toPath);
};

/// The checksum validator.
class VyCryptography {
 public:
  /// Whether the file at `path` has the checksum `Checksum` under the algorithm that `Type`
  /// names ("SHA-256"). False also when the file can't be read or the algorithm is unknown.
  [[nodiscard]] static bool validateCheckSumForFile(const std::string& path,
                                                    const std::string& Type,
                                                    const std::string& Checksum);
};

/// A table of a store that is opened with root access.
class RootAccessKeyValueStorage final : public AgentStore::KeyValueStorage {
 public:
  /// Opens or creates the table `container` of the store at `storagePath`. Throws when the store
  /// can't be opened or created.
  RootAccessKeyValueStorage(const std::string& storagePath, const std::string& container);
  ~RootAccessKeyValueStorage() override;

  void deleteValue(const std::string& forKey) override;
  std::map<std::string, std::string> fetchTableAsDictionary() noexcept override;

 protected:
  void fetchRow(const std::string& forKey,
                const std::function<void(const AgentStore::KeyedDecoder&)>& decode) override;
  void updateRow(const std::string& forKey,
                 const std::function<void(AgentStore::KeyedEncoder&)>& encode) override;

 private:
  struct Table;
  std::unique_ptr<Table> table_;
};

}  // namespace AgentUtils
