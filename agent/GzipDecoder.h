// Decodes a body that was compressed for its transfer. Bounded: the decoded bytes are handed on as
// they come, and whoever takes them may stop.

#pragma once

#include <cstddef>
#include <functional>
#include <memory>

namespace AgentUtils {

/// One gzip stream, of one or more members. Throws `DownloadFailure` for what is none.
class GzipDecoder {
 public:
  using Sink = std::function<void(const char* bytes, std::size_t count)>;

  /// `sink` takes the decoded bytes; what it throws passes through.
  explicit GzipDecoder(Sink sink);
  GzipDecoder(const GzipDecoder&) = delete;
  GzipDecoder& operator=(const GzipDecoder&) = delete;
  ~GzipDecoder();

  void write(const char* bytes, std::size_t count);

  /// The end of the body. Throws when it came before the stream's own end.
  void finish();

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
  Sink sink_;
};

}  // namespace AgentUtils
