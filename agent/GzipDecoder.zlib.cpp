#include "GzipDecoder.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "DownloadRetries.h"

namespace AgentUtils {
namespace {

// zlib's way of asking for the gzip format with the largest window.
constexpr int kGzipWindow = 15 + 16;

}  // namespace

struct GzipDecoder::Stream {
  z_stream zlib{};
  bool isBetweenMembers = true;
  bool hasMember = false;
};

GzipDecoder::GzipDecoder(Sink sink) : stream_(std::make_unique<Stream>()), sink_(std::move(sink)) {
  if (inflateInit2(&stream_->zlib, kGzipWindow) != Z_OK) throw std::bad_alloc();
}

GzipDecoder::~GzipDecoder() { inflateEnd(&stream_->zlib); }

void GzipDecoder::write(const char* bytes, std::size_t count) {
  z_stream& zlib = stream_->zlib;
  std::array<char, 16384> decoded;
  // zlib does not write to its input; its type is older than const.
  zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes));
  zlib.avail_in = static_cast<uInt>(std::min<std::size_t>(count, std::numeric_limits<uInt>::max()));
  do {
    if (stream_->isBetweenMembers) {
      if (zlib.avail_in == 0) return;
      if (stream_->hasMember) inflateReset(&zlib);
      stream_->isBetweenMembers = false;
    }
    zlib.next_out = reinterpret_cast<Bytef*>(decoded.data());
    zlib.avail_out = decoded.size();
    const int result = inflate(&zlib, Z_NO_FLUSH);
    if (result == Z_MEM_ERROR) throw std::bad_alloc();
    // Z_BUF_ERROR says that nothing more can be done with this input.
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
      throw DownloadFailure("the compressed body is damaged");
    }
    sink_(decoded.data(), decoded.size() - zlib.avail_out);
    if (result == Z_STREAM_END) stream_->isBetweenMembers = stream_->hasMember = true;
    if (result == Z_BUF_ERROR) return;
  } while (zlib.avail_in > 0 || zlib.avail_out == 0);
}

void GzipDecoder::finish() {
  if (!stream_->isBetweenMembers || !stream_->hasMember) {
    throw TransientFailure("the compressed body is cut short");
  }
}

}  // namespace AgentUtils
