// The settings file: any bytes give settings or one line that says what is wrong.

#include "SettingsFile.h"

#include <string>
#include <variant>

#include "Input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto parsed = VarnScripts::parseSettingsFile(input.remaining(), "settings.toml");
  if (const auto* error = std::get_if<VarnScripts::SettingsError>(&parsed)) {
    FUZZ_REQUIRE(!error->line.empty());
    FUZZ_REQUIRE(error->line.find('\n') == std::string::npos);
  }
  return 0;
}
