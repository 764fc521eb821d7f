// Datagrams as the tests write them: by offset and byte, apart from the server's own records.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

struct At {
  std::size_t offset;
  Bytes bytes;
};

inline Bytes text(const std::string& characters) {
  return {characters.begin(), characters.end()};
}

// count bytes from first upwards.
inline Bytes counting(std::uint8_t first, std::size_t count) {
  Bytes bytes(count);
  for (std::uint8_t& byte : bytes) byte = first++;
  return bytes;
}

// A datagram of this size, zero but for the code and the given bytes.
inline Bytes datagram(std::uint8_t code, std::size_t size, std::initializer_list<At> parts = {}) {
  Bytes whole(size);
  whole[0] = code;
  for (const At& part : parts) {
    std::copy(part.bytes.begin(), part.bytes.end(),
              whole.begin() + static_cast<std::ptrdiff_t>(part.offset));
  }
  return whole;
}
