// Boxes written as text, for tests that read them and tests that write them.
#ifndef TESTS_SUPPORT_BOX_TEXT_H
#define TESTS_SUPPORT_BOX_TEXT_H

#include <algorithm>
#include <map>
#include <string>

#include "BitAssembler.h"
#include "KelDecDataMgr.h"

namespace test {

/// Boxes from text: a type of the standard layout with '_' for a blank, then '=' and a length
/// where the true one is not meant, then ':' and the contents in hexadecimal digits or '(' child
/// boxes ')'. Commas part boxes. In the other layout its own types and signature come instead.
inline Bytes BoxBytes(const std::string& text, kel::Flavour flavour, std::size_t& at) {
  static const std::map<std::string, std::string> own = {
      {"jP__", "weab"}, {"jp2h", "vrmh"}, {"jp2c", "vrmc"}, {"jpch", "abch"}, {"jplh", "ablh"}};
  const Bytes difference = Hex("7765EB7E");  // between the contents of the two signatures
  BitAssembler out;
  while (at < text.size() && text[at] != ')') {
    std::string type = text.substr(at, 4);
    std::size_t digits = 0;
    const bool isForced = text[at += 4] == '=';
    const std::size_t length = isForced ? std::stoul(text.substr(at + 1), &digits) : 0;
    at += isForced ? 1 + digits : 0;
    Bytes contents;
    if (text[at] == '(') {
      contents = BoxBytes(text, flavour, ++at);
      ++at;
    } else if (text[at] == ':') {
      const std::size_t end = std::min(text.find_first_of(",)", at), text.size());
      contents = Hex(text.substr(at + 1, end - at - 1));
      at = end;
    }
    if (at < text.size() && text[at] == ',') ++at;
    if (flavour == kel::Flavour::kAB && own.contains(type)) {
      const std::size_t n = type == "jP__" ? std::min<std::size_t>(4, contents.size()) : 0;
      for (std::size_t i = 0; i < n; ++i) contents[i] ^= difference[i];
      type = own.at(type);
    }
    std::replace(type.begin(), type.end(), '_', ' ');
    out.U32(isForced ? length : contents.size() + 8).Text(type).Append(contents);
  }
  return out.Result();
}

inline Bytes BoxBytes(const std::string& text, kel::Flavour flavour) {
  std::size_t at = 0;
  return BoxBytes(text, flavour, at);
}

}  // namespace test

#endif
