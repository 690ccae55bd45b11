// MD5: the data, a set bit, zeros, and the number of bits (eight bytes, least significant first)
// make whole blocks of 64 bytes. Every block changes four words in 64 steps.
#include "Md5.hpp"

#include <array>
#include <bit>
#include <cmath>
#include <cstdio>

namespace kel::tool {
namespace {

constexpr int kTurns[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

using State = std::array<std::uint32_t, 4>;

std::uint32_t WordAt(const std::uint8_t* from) {
  return from[0] | std::uint32_t{from[1]} << 8 | std::uint32_t{from[2]} << 16 |
         std::uint32_t{from[3]} << 24;
}

void AddBlock(const std::uint8_t* block, State& state) {
  auto [a, b, c, d] = state;
  for (unsigned i = 0; i < 64; ++i) {
    const unsigned round = i / 16;
    const std::uint32_t mixed = round == 0   ? (b & c) | (~b & d)
                                : round == 1 ? (b & d) | (c & ~d)
                                : round == 2 ? b ^ c ^ d
                                             : c ^ (b | ~d);
    const unsigned at = (round == 0   ? i
                         : round == 1 ? 5 * i + 1
                         : round == 2 ? 3 * i + 5
                                      : 7 * i) %
                        16;
    const auto sine = static_cast<std::uint32_t>(std::floor(std::fabs(std::sin(i + 1.0)) * 0x1p32));
    const std::uint32_t sum = a + mixed + sine + WordAt(block + 4 * at);
    a = d;
    d = c;
    c = b;
    b += std::rotl(sum, kTurns[round][i % 4]);
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

}  // namespace

std::string Md5Digits(host::ByteView bytes) {
  State state = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
  host::Bytes tail(bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 64 * 64),
                   bytes.end());
  for (std::size_t at = 0; at + 64 <= bytes.size(); at += 64) AddBlock(&bytes[at], state);
  tail.push_back(0x80);
  while (tail.size() % 64 != 56) tail.push_back(0);
  for (int shift = 0; shift < 64; shift += 8) {
    tail.push_back(static_cast<std::uint8_t>(std::uint64_t{bytes.size()} * 8 >> shift));
  }
  for (std::size_t at = 0; at < tail.size(); at += 64) AddBlock(&tail[at], state);
  std::string digits;
  char pair[3];
  for (const std::uint32_t word : state) {
    for (int shift = 0; shift < 32; shift += 8) {
      std::snprintf(pair, sizeof pair, "%02X", word >> shift & 0xFF);
      digits += pair;
    }
  }
  return digits;
}

}  // namespace kel::tool
