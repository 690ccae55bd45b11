// Characters of UTF-8, well formed or not.
#include "Text.hpp"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kel::tool {
namespace {

/// The number of bytes of the UTF-8 character at a position; 0 when none stands there.
std::size_t CharacterBytes(const std::string& text, std::size_t at) {
  const auto first = static_cast<unsigned char>(text[at]);
  const std::size_t count = first < 0x80                     ? 1
                            : first >= 0xC2 && first <= 0xDF ? 2
                            : first >= 0xE0 && first <= 0xEF ? 3
                            : first >= 0xF0 && first <= 0xF4 ? 4
                                                             : 0;
  for (std::size_t i = 1; i < count; ++i) {
    if (at + i >= text.size() || (text[at + i] & 0xC0) != 0x80) return 0;
  }
  return count;
}

/// Characters that steer a terminal or the direction and shape of text instead of standing there:
/// controls, marks of direction and width, annotations, tags.
constexpr std::pair<std::uint32_t, std::uint32_t> kUnseen[] = {
    {0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},      {0x61C, 0x61C},
    {0x180E, 0x180E}, {0x200B, 0x200F}, {0x2028, 0x202E},  {0x2060, 0x206F},
    {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF}};

}  // namespace

std::string Utf8(const std::string& comment) {
  std::size_t at = 0;
  while (at < comment.size() && CharacterBytes(comment, at) != 0) at += CharacterBytes(comment, at);
  if (at == comment.size()) return comment;
  std::string text;
  for (const char c : comment) {
    const auto code = static_cast<unsigned char>(c);
    if (code < 0x80) {
      text += c;
    } else {
      text += static_cast<char>(0xC0 | code >> 6);
      text += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return text;
}

std::string Printable(const std::string& text) {
  std::string shown;
  for (std::size_t at = 0, count = 0; at < text.size(); at += count) {
    count = std::max<std::size_t>(CharacterBytes(text, at), 1);
    std::uint32_t code = static_cast<unsigned char>(text[at]);
    if (count > 1) code &= 0x7FU >> count;
    for (std::size_t i = 1; i < count; ++i) {
      code = code << 6 | (static_cast<unsigned char>(text[at + i]) & 0x3FU);
    }
    const bool isUnseen = std::ranges::any_of(
        kUnseen, [&](const auto& range) { return code >= range.first && code <= range.second; });
    shown += isUnseen ? " " : text.substr(at, count);
  }
  return shown;
}

}  // namespace kel::tool
