// Memory for what must not stay in memory: it is wiped when it goes, and never copied.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace VarnScripts::keys {

/// Overwrites the bytes, in a way that no compiler leaves out.
void wipe(void* bytes, std::size_t count) noexcept;

/// Up to `capacity` secret bytes, in place: nothing of them is ever on the heap.
template <std::size_t capacity>
class Secret {
 public:
  Secret() = default;
  Secret(Secret&& other) noexcept : bytes_(other.bytes_), size_(other.size_) { other.forget(); }
  Secret& operator=(Secret&& other) noexcept {
    if (this == &other) return *this;
    bytes_ = other.bytes_;
    size_ = other.size_;
    other.forget();
    return *this;
  }
  ~Secret() { forget(); }

  /// Room for `capacity` bytes, of which `size()` count.
  [[nodiscard]] unsigned char* data() { return bytes_.data(); }
  [[nodiscard]] const unsigned char* data() const { return bytes_.data(); }
  [[nodiscard]] std::size_t size() const { return size_; }
  void resize(std::size_t size) { size_ = size < capacity ? size : capacity; }

  [[nodiscard]] std::span<const unsigned char> bytes() const { return {data(), size_}; }
  [[nodiscard]] std::string_view text() const {
    return {reinterpret_cast<const char*>(data()), size_};
  }

  /// Adds what there is room for. False when that was not all.
  bool add(std::string_view text) {
    const std::size_t added = std::min(text.size(), capacity - size_);
    std::copy_n(text.begin(), added, bytes_.begin() + size_);
    size_ += added;
    return added == text.size();
  }

  void forget() {
    wipe(bytes_.data(), capacity);
    size_ = 0;
  }

 private:
  std::array<unsigned char, capacity> bytes_{};
  std::size_t size_ = 0;
};

/// What a secret key is protected with.
inline constexpr std::size_t kLongestPassphrase = 1024;
using Passphrase = Secret<kLongestPassphrase>;

/// The text of a secret key's file.
inline constexpr std::size_t kLongestKeyFile = 2048;
using KeyText = Secret<kLongestKeyFile>;

}  // namespace VarnScripts::keys
