// The bundled XML parser on expat: a document streams through expat into a `RecordDecoder`; no tree
// of it is ever built.
//
// XML is data here and nothing else. No entity beyond the five built-in ones and character
// references is expanded, nothing outside the document is looked at, and a document that would need
// either is no document. Depth costs memory in proportion and no stack.

#include <expat.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "DecodeWatch.h"
#include "MarkupParser.h"
#include "RecordDecoder.h"

// Expat's header hides these two unless told that the library was built with XML_DTD, which every
// packaged one is. The oldest supported macOS has a library from before they existed.
#ifndef __APPLE__
extern "C" {
XML_Bool XMLCALL XML_SetBillionLaughsAttackProtectionMaximumAmplification(XML_Parser parser,
                                                                          float factor);
XML_Bool XMLCALL XML_SetBillionLaughsAttackProtectionActivationThreshold(
    XML_Parser parser, unsigned long long activationThresholdBytes);
}
#endif

namespace MarkupParser {

struct XML::Accessor::Document {
  std::string data;
  std::optional<CharacterSet> trimming;
  bool ignoreNamespaces;
};

namespace {

// Small enough to stay beside the document in memory without notice, large enough that the calls do
// not show.
constexpr std::size_t kFirstPiece = std::size_t{1} << 20;
constexpr std::size_t kLargestPiece = std::size_t{1} << 30;

/// Expat expands entities in the defaults that a document type declares for attributes. Nobody
/// reads those defaults, so what they may add to the document's own size is kept low. Built-in
/// entities count as well; they never make a text longer.
void limitExpansion([[maybe_unused]] XML_Parser parser) {
#ifndef __APPLE__
  XML_SetBillionLaughsAttackProtectionMaximumAmplification(parser, 2);
  XML_SetBillionLaughsAttackProtectionActivationThreshold(parser, 64 << 10);
#endif
}

struct FreeParser {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

/// How many bytes a code unit of the document has, and which of them holds an ASCII character.
struct CodeUnits {
  std::size_t size = 1;
  std::size_t asciiByte = 0;
};

/// As expat sees it: UTF-16 shows in its byte-order mark, or in the NUL beside the ASCII character
/// that a document begins with. All other encodings that expat reads have ASCII in bytes of its
/// own.
CodeUnits codeUnits(std::string_view data) {
  if (data.size() < 2) return {};
  if (data.starts_with("\xFF\xFE") || data[1] == '\0') return {2, 0};
  if (data.starts_with("\xFE\xFF") || data[0] == '\0') return {2, 1};
  return {};
}

/// Whether surrogates come in pairs only and no byte is left over. Expat itself takes whatever
/// follows a high surrogate for a low one.
bool isUTF16(std::string_view data, CodeUnits units) {
  bool isInPair = false;
  for (std::size_t at = 0; at + 1 < data.size(); at += 2) {
    const unsigned part = static_cast<unsigned char>(data[at + 1 - units.asciiByte]) & 0xFCU;
    if ((part == 0xDC) != isInPair) return false;
    isInPair = part == 0xD8;
  }
  return !isInPair && data.size() % 2 == 0;
}

/// The ASCII characters of `raw`; every other character is left as a NUL.
std::string asciiOnly(std::string_view raw, CodeUnits units) {
  std::string text;
  for (std::size_t at = 0; at + units.size <= raw.size(); at += units.size) {
    const bool isASCII = units.size == 1 || raw[at + 1 - units.asciiByte] == '\0';
    text += isASCII ? raw[at + units.asciiByte] : '\0';
  }
  return text;
}

/// Whether a start tag, `&` by `&`, refers to nothing but characters and built-in entities.
bool hasOnlyBuiltInReferences(std::string_view tag) {
  constexpr std::string_view kBuiltIn[] = {"#", "amp;", "lt;", "gt;", "apos;", "quot;"};
  for (std::size_t at = tag.find('&'); at != std::string_view::npos; at = tag.find('&', at + 1)) {
    const std::string_view reference = tag.substr(at + 1);
    if (std::ranges::none_of(kBuiltIn, [&](auto name) { return reference.starts_with(name); })) {
      return false;
    }
  }
  return true;
}

/// Whether XML 1.0 has the version: "1." and digits. Expat takes any.
bool isVersion(std::string_view text) {
  return text.size() > 2 && text.starts_with("1.") &&
         text.find_first_not_of("0123456789", 2) == text.npos;
}

/// One run of expat over one document. The callbacks are called from C, so no exception leaves
/// them: a failure stops the parser.
class Reader {
 public:
  Reader(std::string_view data, RecordDecoder& decoder)
      : data_(data), units_(codeUnits(data)), decoder_(decoder) {}

  /// Whether the document is well formed, and the decoder has taken all of it.
  [[nodiscard]] bool read() {
    if (units_.size == 2 && !isUTF16(data_, units_)) return false;
    parser_.reset(XML_ParserCreate(nullptr));
    if (!parser_) return false;
    XML_Parser parser = parser_.get();
    XML_SetUserData(parser, this);
    XML_SetElementHandler(parser, onBegin, onEnd);
    XML_SetCharacterDataHandler(parser, onCharacters);
    XML_SetXmlDeclHandler(parser, onDeclaration);
    XML_SetStartDoctypeDeclHandler(parser, onDoctype);
    // With a default handler set, expat leaves entities of the document's own unexpanded and
    // reports them as skipped.
    XML_SetDefaultHandler(parser, [](void*, const XML_Char*, int) {});
    XML_SetSkippedEntityHandler(
        parser, [](void* self, const XML_Char*, int) { static_cast<Reader*>(self)->fail(); });
    XML_SetExternalEntityRefHandler(
        parser,
        [](XML_Parser, const XML_Char*, const XML_Char*, const XML_Char*, const XML_Char*) -> int {
          return XML_STATUS_ERROR;
        });
    limitExpansion(parser);
    return feed() && !failed_;
  }

 private:
  /// Hands the document to expat in pieces: given as a whole, expat would copy it as a whole. A
  /// piece in which no token ends makes the next one twice as large, since expat looks at an
  /// unfinished token anew with each piece.
  [[nodiscard]] bool feed() {
    std::size_t piece = kFirstPiece;
    std::size_t at = 0;
    while (true) {
      const std::size_t size = std::min(piece, data_.size() - at);
      const bool isLast = at + size == data_.size();
      if (XML_Parse(parser_.get(), data_.data() + at, static_cast<int>(size),
                    isLast ? XML_TRUE : XML_FALSE) != XML_STATUS_OK) {
        return false;
      }
      if (isLast) return true;
      const XML_Index parsed = XML_GetCurrentByteIndex(parser_.get());
      const bool advanced = parsed >= 0 && static_cast<std::size_t>(parsed) > at;
      piece = advanced ? kFirstPiece : std::min(piece * 2, kLargestPiece);
      at += size;
    }
  }

  void fail() {
    failed_ = true;
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  /// Runs `step`, and stops the parser when it gives false or throws.
  template <class Step>
  static void guarded(void* self, Step step) noexcept {
    Reader& reader = *static_cast<Reader*>(self);
    // Expat ends an empty element after a stop at its beginning.
    if (reader.failed_) return;
    try {
      if (!step(reader)) reader.fail();
    } catch (...) {
      reader.fail();
    }
  }

  static void onBegin(void* self, const XML_Char* name, const XML_Char** attributes) {
    guarded(self, [&](Reader& reader) {
      if (reader.hasDoctype_ && !reader.hasPlainTag()) return false;
      // Without those that a declaration, not the document's element, gives a value.
      const int count = XML_GetSpecifiedAttributeCount(reader.parser_.get());
      return reader.decoder_.begin(name, attributes, static_cast<std::size_t>(count));
    });
  }

  static void onEnd(void* self, const XML_Char*) {
    guarded(self, [](Reader& reader) { return reader.decoder_.end(); });
  }

  static void onCharacters(void* self, const XML_Char* piece, int length) {
    guarded(self, [&](Reader& reader) {
      reader.decoder_.characters({piece, static_cast<std::size_t>(length)});
      return true;
    });
  }

  static void onDeclaration(void* self, const XML_Char* version, const XML_Char*, int) {
    guarded(self, [&](Reader&) { return version != nullptr && isVersion(version); });
  }

  static void onDoctype(void* self, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    static_cast<Reader*>(self)->hasDoctype_ = true;
  }

  /// Whether the start tag at hand is free of the document's own entities, which expat expands in
  /// attribute values without a word.
  [[nodiscard]] bool hasPlainTag() const {
    const XML_Index start = XML_GetCurrentByteIndex(parser_.get());
    const int length = XML_GetCurrentByteCount(parser_.get());
    if (start < 0 || length < 0) return false;
    const std::string_view tag =
        data_.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(length));
    return hasOnlyBuiltInReferences(units_.size == 1 ? tag
                                                     : std::string_view(asciiOnly(tag, units_)));
  }

  std::string_view data_;
  CodeUnits units_;
  RecordDecoder& decoder_;
  std::unique_ptr<XML_ParserStruct, FreeParser> parser_;
  bool hasDoctype_ = false;
  bool failed_ = false;
};

std::atomic<void (*)() noexcept> undecodableNotice = nullptr;

}  // namespace

void notifyOfUndecodable(void (*notify)() noexcept) noexcept { undecodableNotice = notify; }

XML::Accessor::Accessor(std::shared_ptr<const Document> document)
    : document_(std::move(document)) {}

bool XML::Accessor::decode(const RecordSchema& schema, void* record) const {
  if (!document_) return false;
  try {
    const Document& document = *document_;
    RecordDecoder decoder(schema, record, document.trimming ? &*document.trimming : nullptr,
                          document.ignoreNamespaces);
    const bool decoded = Reader(document.data, decoder).read() && decoder.finish();
    if (!decoded || !decoder.isOfRecord()) {
      if (const auto notify = undecodableNotice.load()) notify();
    }
    return decoded;
  } catch (...) {
    // Out of memory: as good as no document.
    return false;
  }
}

XML::Accessor XML::parse(std::string data, std::optional<CharacterSet> trimming,
                         bool ignoreNamespaces) {
  try {
    return Accessor(std::make_shared<const Accessor::Document>(
        Accessor::Document{std::move(data), std::move(trimming), ignoreNamespaces}));
  } catch (...) {
    // Out of memory: an accessor over no document, which decodes to absent.
    return Accessor(nullptr);
  }
}

}  // namespace MarkupParser
