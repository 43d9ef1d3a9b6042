// Reads of the local store that leave no trace at it: the store is copied elsewhere and read there.

#pragma once

#include <string>

namespace VarnScripts {

/// Makes the file `to`, in a directory of the caller's, a copy of the store `from` as it is between
/// two of its transactions. Neither `from` nor its directory is changed. Throws an exception that
/// tells why when there is no copy.
void copyStore(const std::string& from, const std::string& to);

}  // namespace VarnScripts
