// A row of the store: any text decodes to a record or throws, and a record that decodes is written
// and read as the same record.

#include <exception>
#include <optional>
#include <string>

#include "Input.h"
#include "RowCoding.h"

namespace {

struct Fields {
  std::optional<std::string> version;
  std::optional<std::string> scriptPath;
  bool operator==(const Fields&) const = default;
};

Fields decode(const std::string& row) {
  const AgentStore::RowDecoder decoder(row);
  return {decoder.decodeIfPresent("version"), decoder.decodeIfPresent("scriptPath")};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  Fields fields;
  try {
    fields = decode(input.remaining());
  } catch (const std::exception&) {
    return 0;
  }
  AgentStore::RowEncoder encoder;
  if (fields.version) encoder.encode(*fields.version, "version");
  if (fields.scriptPath) encoder.encode(*fields.scriptPath, "scriptPath");
  FUZZ_REQUIRE(decode(encoder.row()) == fields);
  return 0;
}
