// The files of a repository in the server's tree: written whole or not at all, readable for a web
// server (files 0644, directories 0755, whatever the process's mask is), and never followed through
// a symbolic link. One publishing at a time holds the directory, and one user publishes there.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "publish/Documents.h"

namespace VarnScripts::publishing {

/// The repository's directory, open and locked until it is destroyed. The system lets go of the
/// lock as well when the process ends in any way.
///
/// After a failed operation `error` tells why and `failedPath()` where.
class ServerFiles {
 public:
  ServerFiles() = default;
  ServerFiles(const ServerFiles&) = delete;
  ServerFiles& operator=(const ServerFiles&) = delete;
  /// Removes what has been added and not been committed.
  ~ServerFiles();

  /// Looks at `outputDirectory`/`repository` without taking it: for `read` and `holds`.
  void look(const std::string& outputDirectory, const std::string& repository);

  /// `look`, and takes the directory as `open` does when something has been published there;
  /// nothing is made. Whether it is taken tells `isOpen`.
  void openPublished(const std::string& outputDirectory, const std::string& repository,
                     std::error_code& error);

  /// Creates what is missing of `outputDirectory`/`repository`, waits until no other process
  /// publishes there, which it tells on standard error, and takes the directory. Its lock file,
  /// ".publishing.lock" in it, can be opened by its owner alone, and stays.
  void open(const std::string& outputDirectory, const std::string& repository,
            std::error_code& error);

  [[nodiscard]] bool isOpen() const { return lock_ >= 0; }

  /// The path of the file `name`, for messages.
  [[nodiscard]] std::string pathOf(const std::string& name) const;

  /// The bytes of the regular file `name`; nothing when there is no such name. A symbolic link is
  /// the error `std::errc::too_many_symbolic_link_levels`, another thing than a file
  /// `std::errc::invalid_argument`, one of more than `mostBytes` `std::errc::file_too_large`.
  [[nodiscard]] std::optional<std::string> read(
      const std::string& name, std::error_code& error,
      std::uint64_t mostBytes = std::numeric_limits<std::uint64_t>::max());

  /// The signatures that the tree has, "signatures/DIGEST.minisig" and the like, in their order.
  [[nodiscard]] std::vector<std::string> signatures(std::error_code& error);

  /// Makes the place for signatures where it is missing. The directory is open.
  void makePlaceForSignatures(std::error_code& error);

  /// Whether the file of the content name `name` has the bytes that the name tells, and everybody
  /// may read it. Several threads may ask at the same time.
  [[nodiscard]] bool holds(const std::string& name) const;

  /// Makes `name` hold `bytes` once `commit` has succeeded. A file that holds them already stays as
  /// it is.
  void add(const std::string& name, std::string_view bytes, std::error_code& error);

  /// Puts everything that has been added in its place, on the disk.
  void commit(std::error_code& error);

  /// Removes the copies of the file `name` that somebody compressed beforehand for a web server:
  /// `name` followed by ".gz", ".br" or ".zst". Gone from the disk when this has succeeded.
  void removeCompressedCopies(const std::string& name, std::error_code& error);

  /// Notes with the files of `names` that they have just dropped out of the list: it is the time of
  /// their last modification from now on.
  void noteDropped(const ContentNames& names, std::error_code& error);

  /// Removes content and signatures that are not in `named` and have not been modified for `age`,
  /// and what interrupted publishings have left. Other files stay.
  void removeContentBut(const ContentNames& named, std::chrono::seconds age,
                        std::error_code& error);
  /// Removes what interrupted publishings have left.
  void removeLeftovers(std::error_code& error);

  /// How many files have been added and not been committed.
  [[nodiscard]] std::size_t pending() const { return pending_.size(); }
  [[nodiscard]] std::size_t written() const { return written_; }
  [[nodiscard]] std::size_t removed() const { return removed_; }
  [[nodiscard]] std::size_t copiesRemoved() const { return copiesRemoved_; }
  [[nodiscard]] const std::string& failedPath() const { return failedPath_; }

 private:
  struct Pending {
    std::string temporary;
    std::string name;
  };

  void fail(const std::string& path, std::error_code& error);
  void createDirectories(const std::string& path, std::error_code& error);
  void lock(int flags, std::error_code& error);
  void writeTemporary(const std::string& path, std::string_view bytes, std::error_code& error);
  void syncDirectory(const std::string& path, std::error_code& error);
  void remove(const std::function<bool(const std::string& name)>& isUnneeded,
              std::error_code& error);

  std::string directory_;
  int lock_ = -1;
  std::vector<Pending> pending_;
  std::set<std::string> added_;
  std::size_t written_ = 0;
  std::size_t removed_ = 0;
  std::size_t copiesRemoved_ = 0;
  std::size_t serial_ = 0;
  std::string failedPath_;
};

}  // namespace VarnScripts::publishing
