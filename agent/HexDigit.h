// Hexadecimal digits, whatever the locale.

#pragma once

namespace AgentUtils {

/// The value of a hexadecimal digit of either case, or -1 for any other character.
[[nodiscard]] constexpr int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace AgentUtils
