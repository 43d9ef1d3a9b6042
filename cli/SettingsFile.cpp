#include "SettingsFile.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

#include "ParsedToml.h"
#include "WholeFiles.h"

namespace VarnScripts {
namespace {

constexpr std::size_t kLargestFile = std::size_t{1} << 20;

const SettingDefinition* definitionOf(std::string_view key) {
  for (const auto& definition : settingDefinitions()) {
    if (definition.key == key) return &definition;
  }
  return nullptr;
}

std::string_view wordFor(SettingDefinition::Kind kind) {
  switch (kind) {
    case SettingDefinition::Kind::number:
      return "a whole number";
    case SettingDefinition::Kind::toggle:
      return "true or false";
    case SettingDefinition::Kind::texts:
      return "a list of texts in quotation marks, with at least one in it";
    case SettingDefinition::Kind::text:
      break;
  }
  return "a text in quotation marks";
}

// The texts of an array, a line each. One that is empty, or has a line break in it, is none.
std::optional<std::string> linesOf(const toml::node& node) {
  const auto* const array = node.as_array();
  if (array == nullptr || array->empty()) return std::nullopt;
  std::string lines;
  for (const toml::node& element : *array) {
    const auto* const text = element.as_string();
    if (text == nullptr || text->get().empty()) return std::nullopt;
    if (text->get().find('\n') != std::string::npos) return std::nullopt;
    lines += (lines.empty() ? "" : "\n") + text->get();
  }
  return lines;
}

std::optional<std::string> textOf(const toml::node& node, SettingDefinition::Kind kind) {
  switch (kind) {
    case SettingDefinition::Kind::number:
      if (const auto* number = node.as_integer()) return std::to_string(number->get());
      return std::nullopt;
    case SettingDefinition::Kind::toggle:
      if (const auto* toggle = node.as_boolean()) return toggle->get() ? "true" : "false";
      return std::nullopt;
    case SettingDefinition::Kind::texts:
      return linesOf(node);
    case SettingDefinition::Kind::text:
      if (const auto* text = node.as_string()) return text->get();
      return std::nullopt;
  }
  return std::nullopt;
}

/// The text on one line: keys and the parser's own words may hold line breaks and worse.
std::string onOneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    const bool isControl = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    line += isControl ? '?' : c;
  }
  return line;
}

SettingsError errorInFile(const std::string& path, std::uint32_t line, const std::string& what) {
  return {nameOfSettingsFile(path) + ", line " + std::to_string(line) + ": " + onOneLine(what)};
}

SettingsError unreadable(const std::string& path, const std::string& why) {
  return {nameOfSettingsFile(path) + " (given by --config or VARN_CONFIG) can't be read: " + why};
}

std::variant<SettingTexts, SettingsError> textsOf(const toml::table& table,
                                                  const std::string& path) {
  SettingTexts texts;
  for (const auto& [name, node] : table) {
    const std::string key(name.str());
    const auto line = name.source().begin.line;
    const SettingDefinition* const definition = definitionOf(key);
    if (definition == nullptr) return errorInFile(path, line, "unknown setting " + key);
    const auto text = textOf(node, definition->kind());
    if (!text) {
      return errorInFile(path, line, key + " must be " + std::string(wordFor(definition->kind())));
    }
    texts[key] = *text;
  }
  return texts;
}

}  // namespace

std::variant<SettingTexts, SettingsError> parseSettingsFile(const std::string& text,
                                                            const std::string& path) {
  try {
    return textsOf(parsedToml(text, path), path);
  } catch (const toml::parse_error& error) {
    return errorInFile(path, error.source().begin.line, std::string(error.description()));
  }
}

std::variant<SettingTexts, SettingsError> readSettingsFile(
    const std::string& path, const posix::FileDescriptor& standardInput) {
  std::error_code error;
  const std::string text =
      path == kStandardInput
          ? posix::readAll(standardInput.get(), kLargestFile, error)
          : posix::readRegularFile(path, posix::LastLink::follow, error, kLargestFile).bytes;
  if (error == std::errc::file_too_large) return unreadable(path, "it is larger than 1 MiB");
  if (error) return unreadable(path, posix::whyNotRead(error));
  return parseSettingsFile(text, path);
}

}  // namespace VarnScripts
