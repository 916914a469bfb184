// UUID: a random (version 4) universally unique identifier.
//
// Its text form is upper-case hexadecimal with hyphens,
// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F". Safe to create from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace brivet {

class UUID {
 public:
  static UUID random();
  // Parses the hyphenated text form (either case); nullopt when malformed.
  static std::optional<UUID> fromString(std::string_view text);

  std::string uuidString() const;
  const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
  std::size_t hash() const;
  friend bool operator==(const UUID&, const UUID&) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace brivet
