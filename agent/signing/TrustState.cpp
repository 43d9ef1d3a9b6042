#include "signing/TrustState.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "Digest.h"
#include "signing/SignedComment.h"

namespace AgentUtils::signing {
namespace {

constexpr std::string_view kFirstLine = "varn-scripts: accepted lists, form 1";
constexpr std::string_view kCustomer = "customer: ";
constexpr std::string_view kKey = "key: ";
constexpr std::string_view kDigest = "sha256: ";
constexpr std::size_t kDigestLength = 64;

Refusal refusal(const std::string& why) { return {"the record of accepted lists " + why}; }

std::string digestOf(std::string_view text) { return hexDigest(usualDigest(), text); }

bool isDigestText(std::string_view text) {
  return text.size() == kDigestLength && std::ranges::all_of(text, [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

/// What stands up to the next line break, which must be there; it is taken off `text`.
std::optional<std::string_view> takeLine(std::string_view& text) {
  const std::size_t end = text.find('\n');
  if (end == text.npos) return std::nullopt;
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end + 1);
  return line;
}

std::string entryLine(const PublicKey& key, const LastAccepted& last) {
  return std::string(kKey) + publicKeyLine(key) + ' ' + std::to_string(last.serial) + ' ' +
         last.list + ' ' + utcTimeText(last.published) + ' ' + utcTimeText(last.expires) + '\n';
}

std::optional<std::pair<PublicKey, LastAccepted>> entryOf(std::string_view line) {
  if (!line.starts_with(kKey)) return std::nullopt;
  line.remove_prefix(kKey.size());
  std::array<std::string_view, 5> words;
  for (std::string_view& word : words) {
    word = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(word.size() + 1, line.size()));
  }
  if (!line.empty()) return std::nullopt;
  const auto key = parsePublicKey(words[0]);
  const auto serial = serialFrom(words[1]);
  const auto published = utcTimeFrom(words[3]);
  const auto expires = utcTimeFrom(words[4]);
  if (!std::holds_alternative<PublicKey>(key) || !serial || !isDigestText(words[2]) || !published ||
      !expires) {
    return std::nullopt;
  }
  return std::pair(std::get<PublicKey>(key),
                   LastAccepted{*serial, std::string(words[2]), *published, *expires});
}

// The text without its last line, whose digest that line must be.
std::optional<std::string_view> withoutDigest(std::string_view text) {
  const std::size_t length = kDigest.size() + kDigestLength + 1;
  if (text.size() < length || text.back() != '\n') return std::nullopt;
  const std::string_view body = text.substr(0, text.size() - length);
  const std::string_view last = text.substr(body.size(), length - 1);
  if (!last.starts_with(kDigest) || last.substr(kDigest.size()) != digestOf(body)) {
    return std::nullopt;
  }
  return body;
}

std::string body(const TrustState& state) {
  std::string text(kFirstLine);
  text.append("\n").append(kCustomer).append(state.customer).append("\n");
  for (const auto& [key, last] : state.keys) text += entryLine(key, last);
  return text;
}

}  // namespace

std::string trustStateText(const TrustState& state) {
  const std::string text = body(state);
  return text + std::string(kDigest) + digestOf(text) + '\n';
}

std::variant<TrustState, Refusal> parseTrustState(std::string_view text,
                                                  std::string_view customer) {
  if (!text.starts_with(kFirstLine)) return refusal("is none: it holds something else");
  const auto rest = withoutDigest(text);
  if (!rest) return refusal("is cut or damaged");
  std::string_view lines = *rest;
  // The first line was seen.
  static_cast<void>(takeLine(lines));
  const auto whose = takeLine(lines);
  if (!whose || !whose->starts_with(kCustomer)) return refusal("is damaged: it names no customer");
  TrustState state{std::string(whose->substr(kCustomer.size())), {}};
  while (const auto line = takeLine(lines)) {
    auto entry = entryOf(*line);
    if (!entry) return refusal("is damaged: it has a line that is no key's");
    state.keys.insert(std::move(*entry));
  }
  // Sorted, nothing twice, nothing behind the end of a line.
  if (body(state) != *rest) return refusal("is damaged: it is not as it was written");
  if (state.customer != customer) {
    return refusal("is of the customer \"" + state.customer + "\", not of \"" +
                   std::string(customer) + '"');
  }
  return state;
}

}  // namespace AgentUtils::signing
