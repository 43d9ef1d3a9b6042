// The vocabulary of the local script state: where its table lies, the record kept per script, and
// the names of the record's fields. An agent that reads the table itself uses these.

#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "AgentStore.h"
#include "VarnExport.h"

namespace VarnScriptRepository {

/// Constants that locate the table. A namespace; it has no instances.
struct VARN_EXPORT ScriptRepositoryConstants {
  ScriptRepositoryConstants() = delete;

  /// Where the store lies. A namespace, too.
  struct VARN_EXPORT FilePath {
    FilePath() = delete;
    /// The store's path: the agent's data directory followed by
    /// "/Configuration-Framework/ScriptRepository". Computed on first use, then fixed for the life
    /// of the process; safe under concurrent first use. An agent without a data directory gives
    /// the bare suffix. Aborts the process when `AgentUtils::gv_globvars` is null.
    [[nodiscard]] static const std::string& scriptRepository();
  };

  /// The tables in the store. A namespace, too.
  struct TableNames {
    TableNames() = delete;
    /// The table's name inside the store.
    static constexpr const char* scriptToMeta = "ScriptToMeta";
  };
};

/// What is remembered of one script: two facts that outlive the agent's restart. A reference type,
/// so that a fetched record is changed in place and written back.
///
/// Conforms to `AgentStore::SQLiteValue`.
class VARN_EXPORT ScriptLocalData {
  // The order of the virtual functions is part of the class's contract with its subclasses.
 public:
  /// The version stamp of the script on disk, as the server gave it; absent when no verified
  /// download has been recorded.
  virtual const std::optional<std::string>& version() const;
  virtual void setVersion(std::optional<std::string> version);
  virtual std::optional<std::string>& modifyVersion();

  /// The full path of the downloaded script file; absent before the first download.
  virtual const std::optional<std::string>& scriptPath() const;
  virtual void setScriptPath(std::optional<std::string> scriptPath);
  virtual std::optional<std::string>& modifyScriptPath();

  ScriptLocalData(std::optional<std::string> version, std::optional<std::string> scriptPath);

  /// Writes the present fields under "version" and "scriptPath", in this order.
  virtual void encode(AgentStore::KeyedEncoder& to) const;

  /// Reads the fields that are present and leaves the others absent. Throws what `from` throws for
  /// an element that is not a text.
  explicit ScriptLocalData(const AgentStore::KeyedDecoder& from);

  ScriptLocalData(const ScriptLocalData&) = delete;
  ScriptLocalData& operator=(const ScriptLocalData&) = delete;
  virtual ~ScriptLocalData();

 private:
  struct Fields;

  std::optional<std::string> version_;
  std::optional<std::string> scriptPath_;
};

/// The names of the fields of `ScriptLocalData`.
class ScriptRepositoryKeys {
 public:
  enum Case { version, scriptPath };

  // Implicit, so that a case stands for its key.
  constexpr ScriptRepositoryKeys(Case value) : case_(value) {}

  /// The key with exactly this raw value, or nothing.
  [[nodiscard]] static std::optional<ScriptRepositoryKeys> fromRawValue(
      const std::string& rawValue) {
    if (rawValue == "version") return version;
    if (rawValue == "scriptPath") return scriptPath;
    return std::nullopt;
  }

  /// The field's name in the stored record: "version" or "scriptPath".
  [[nodiscard]] std::string rawValue() const { return case_ == version ? "version" : "scriptPath"; }

  /// The same text as `rawValue()`.
  [[nodiscard]] std::string key() const { return rawValue(); }

  friend bool operator==(const ScriptRepositoryKeys& a, const ScriptRepositoryKeys& b) {
    return a.rawValue() == b.rawValue();
  }

 private:
  Case case_;
};

}  // namespace VarnScriptRepository

/// Keys hash as their raw values do.
template <>
struct std::hash<VarnScriptRepository::ScriptRepositoryKeys> {
  std::size_t operator()(const VarnScriptRepository::ScriptRepositoryKeys& keys) const {
    return std::hash<std::string>{}(keys.rawValue());
  }
};
