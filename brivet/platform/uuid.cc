#include "brivet/platform/uuid.h"

#include <cstring>
#include <random>

namespace brivet {

UUID UUID::random() {
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(), device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  UUID uuid;
  const std::uint64_t hi = generator();
  const std::uint64_t lo = generator();
  std::memcpy(uuid.bytes_.data(), &hi, 8);
  std::memcpy(uuid.bytes_.data() + 8, &lo, 8);
  uuid.bytes_[6] = static_cast<std::uint8_t>((uuid.bytes_[6] & 0x0F) | 0x40);  // version 4
  uuid.bytes_[8] = static_cast<std::uint8_t>((uuid.bytes_[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return uuid;
}

std::optional<UUID> UUID::fromString(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  UUID uuid;
  std::size_t byte = 0;
  for (std::size_t i = 0; i < 36;) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    const int high = nibble(text[i]);
    const int low = nibble(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    uuid.bytes_[byte++] = static_cast<std::uint8_t>(high << 4 | low);
    i += 2;
  }
  return uuid;
}

std::string UUID::uuidString() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    out += kHex[bytes_[i] >> 4];
    out += kHex[bytes_[i] & 15];
  }
  return out;
}

std::size_t UUID::hash() const {
  std::uint64_t a;
  std::uint64_t b;
  std::memcpy(&a, bytes_.data(), 8);
  std::memcpy(&b, bytes_.data() + 8, 8);
  return static_cast<std::size_t>(a ^ (b * 0x9E3779B97F4A7C15ULL));
}

}  // namespace brivet
