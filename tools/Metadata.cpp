// Payloads by their identifiers, and the few changes of XMP that need no reader of XML.
#include "Metadata.hpp"

#include <kel/host/convert.hpp>
#include <kel/host/exif.hpp>
#include <kel/host/pnm.hpp>

#include <algorithm>
#include <string_view>

#include "Exif.hpp"

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;
using host::Image;
using Id = std::array<std::uint8_t, 16>;

/// The one that readers look for IPTC records under.
constexpr Id kIptcId = {0x33, 0xC7, 0xA4, 0xD2, 0xB8, 0x1D, 0x47, 0x23,
                        0xA0, 0xBA, 0xF1, 0xA3, 0xE0, 0x97, 0xAD, 0x38};
/// Keywords and texts in turn, each with a zero byte at its end.
constexpr Id kTextsId = {0x5E, 0x81, 0xD2, 0x90, 0x2B, 0x6F, 0x4C, 0x13,
                         0x97, 0x0A, 0xE4, 0x58, 0xBB, 0x21, 0x6D, 0xC0};

constexpr std::string_view kNoteProperty = "xmpNote:HasExtendedXMP";
constexpr std::uint16_t kIptcBlock = 0x0404;
constexpr std::size_t kMostJpegExif = 65533 - 6;

ByteView Find(const Image& image, const Id& id) {
  const auto found = std::ranges::find(image.uuids, id, &host::UuidPayload::id);
  return found == image.uuids.end() ? ByteView() : ByteView(found->data);
}

void Set(Image& image, const Id& id, ByteView data) {
  const Bytes copy(data.begin(), data.end());
  std::erase_if(image.uuids, [&](const host::UuidPayload& payload) { return payload.id == id; });
  if (!copy.empty()) image.uuids.push_back({id, copy});
}

bool IsXmp(const std::string& text) {
  return text.find("<x:xmpmeta") != std::string::npos || text.find("<rdf:RDF") != std::string::npos;
}

bool IsKnown(const host::UuidPayload& payload) {
  Image alone;
  alone.uuids.push_back(payload);
  host::SetKeptMaxValue(alone, 0);
  return payload.id == host::kExifId || payload.id == kIptcId || payload.id == kTextsId ||
         alone.uuids.empty();
}

/// Takes properties whose names begin so out of XMP, be they attributes or elements.
void RemoveProperties(std::string& xmp, std::string_view begin) {
  for (std::size_t at = 0; (at = xmp.find(begin, at)) != std::string::npos;) {
    const std::size_t nameEnd = xmp.find_first_of(" \t\r\n=/>", at);
    if (nameEnd == std::string::npos) return;
    const std::string name = xmp.substr(at, nameEnd - at);
    std::size_t from = at, to = nameEnd;
    if (at > 0 && xmp[at - 1] == '<') {
      from = at - 1;
      const std::size_t close = xmp.find('>', nameEnd);
      const bool isEmpty = close != std::string::npos && xmp[close - 1] == '/';
      const std::string endTag = "</" + name + ">";
      const std::size_t end = isEmpty ? close : xmp.find(endTag, nameEnd);
      if (end == std::string::npos) return;
      to = isEmpty ? close + 1 : end + endTag.size();
    } else {
      const std::size_t quote = xmp.find_first_of("\"'", nameEnd);
      const std::size_t end = quote == std::string::npos ? quote : xmp.find(xmp[quote], quote + 1);
      if (end == std::string::npos) return;
      to = end + 1;
    }
    xmp.erase(from, to - from);
    at = from;
  }
}

/// XMP repeats the orientation; when samples have been turned it is as it is seen.
void ForgetXmpOrientation(std::string& xmp) {
  RemoveProperties(xmp, "tiff:Orientation");
}

/// The descriptions inside a packet's rdf:RDF; nothing when it has none.
std::pair<std::size_t, std::size_t> InsideRdf(std::string_view xmp) {
  const std::size_t open = xmp.find("<rdf:RDF");
  const std::size_t from = open == xmp.npos ? open : xmp.find('>', open);
  const std::size_t to = xmp.rfind("</rdf:RDF>");
  if (from == xmp.npos || to == xmp.npos || to < from) return {0, 0};
  return {from + 1, to};
}

}  // namespace

void AddExif(Image& image, ByteView exif) {
  if (FindExif(image).empty()) SetExif(image, exif);
}

void SetExif(Image& image, ByteView exif) {
  Set(image, host::kExifId, exif);
}

void AddXmp(Image& image, std::string text) {
  if (!text.empty()) image.xml.push_back(std::move(text));
}

void SetXmp(Image& image, std::string text) {
  std::erase_if(image.xml, IsXmp);
  AddXmp(image, std::move(text));
}

const std::string* FindXmp(const Image& image) {
  const auto found = std::ranges::find_if(image.xml, IsXmp);
  return found == image.xml.end() ? nullptr : &*found;
}

std::string JoinXmp(std::string packet, std::string_view extension) {
  RemoveProperties(packet, kNoteProperty);
  std::string bare = MakeXmpPointer({});
  RemoveProperties(bare, kNoteProperty);
  if (packet == bare) return std::string(extension);
  const auto [from, to] = InsideRdf(extension);
  const std::size_t end = InsideRdf(packet).second;
  if (to == 0 || end == 0) return packet;
  packet.insert(end, extension.substr(from, to - from));
  return packet;
}

std::string MakeXmpPointer(std::string_view digest) {
  return "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF "
         "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description "
         "rdf:about=\"\" "
         "xmlns:xmpNote=\"http://ns.adobe.com/xmp/note/\" " +
         std::string(kNoteProperty) + "=\"" + std::string(digest) + "\"/></rdf:RDF></x:xmpmeta>";
}

void AddIptc(Image& image, ByteView iptc) {
  if (FindIptc(image).empty()) Set(image, kIptcId, iptc);
}

ByteView FindIptc(const Image& image) {
  return Find(image, kIptcId);
}

ByteView IptcInBlocks(ByteView blocks) {
  // "8BIM", number, name with its length in front (both padded to even), length, data (padded).
  while (blocks.size() >= 12 && std::equal(blocks.begin(), blocks.begin() + 4, "8BIM")) {
    const unsigned number = blocks[4] * 256U + blocks[5];
    const std::size_t head = 6 + (blocks[6] + 2U) / 2 * 2;
    if (head + 4 > blocks.size()) break;
    const std::size_t size = std::size_t{blocks[head]} << 24 | std::size_t{blocks[head + 1]} << 16 |
                             blocks[head + 2] * 256U | blocks[head + 3];
    const ByteView data = blocks.subspan(head + 4);
    if (size > data.size()) break;
    if (number == kIptcBlock) return data.first(size);
    blocks = data.subspan(std::min(data.size(), size + size % 2));
  }
  return {};
}

Bytes MakeIptcBlock(ByteView iptc) {
  Bytes block = {'8', 'B', 'I', 'M', kIptcBlock >> 8, kIptcBlock & 0xFF, 0, 0};
  for (const int shift : {24, 16, 8, 0}) {
    block.push_back(static_cast<std::uint8_t>(iptc.size() >> shift));
  }
  block.insert(block.end(), iptc.begin(), iptc.end());
  if (iptc.size() % 2 != 0) block.push_back(0);
  return block;
}

void SetTexts(Image& image, const Texts& texts) {
  std::string data;
  for (const auto& [keyword, text] : texts) {
    data.append(keyword).append(1, '\0').append(text).append(1, '\0');
  }
  Set(image, kTextsId, {reinterpret_cast<const std::uint8_t*>(data.data()), data.size()});
}

Texts FindTexts(const Image& image) {
  const ByteView data = Find(image, kTextsId);
  std::string_view left(reinterpret_cast<const char*>(data.data()), data.size());
  const auto next = [&] {
    const std::string_view text = left.substr(0, left.find('\0'));
    left.remove_prefix(std::min(left.size(), text.size() + 1));
    return std::string(text);
  };
  Texts texts;
  while (!left.empty()) {
    std::string keyword = next();
    texts.emplace_back(std::move(keyword), next());
  }
  return texts;
}

void SetOrientation(Image& image, unsigned orientation) {
  const ByteView found = FindExif(image);
  Bytes exif(found.begin(), found.end());
  SetExifOrientation(exif, orientation);
  if (orientation == 1 && ReadExif(ByteView(exif)).SaysNothing()) exif.clear();
  SetExif(image, exif);
}

void MakeUpright(Image& image) {
  const unsigned orientation = OrientationOf(image);
  if (orientation == 1) return;
  host::Orient(image, orientation);
  SetOrientation(image, 1);
  for (std::string& text : image.xml) {
    if (IsXmp(text)) ForgetXmpOrientation(text);
  }
}

void StripMetadata(Image& image, Strip what) {
  if (what == Strip::kNothing) return;
  if (what == Strip::kGps) {
    const ByteView found = FindExif(image);
    Bytes exif(found.begin(), found.end());
    RemoveExifGps(exif);
    SetExif(image, exif);
    for (std::string& text : image.xml) {
      if (IsXmp(text)) RemoveProperties(text, "exif:GPS");
    }
    return;
  }
  const unsigned orientation = OrientationOf(image);
  const std::uint32_t maxValue = host::KeptMaxValue(image);
  image.comment.clear();
  image.xml.clear();
  image.uuids.clear();
  host::SetKeptMaxValue(image, maxValue);
  SetOrientation(image, orientation);
}

std::string LossesIn(const Image& image, ImageFormat format) {
  const bool isNpy = format == ImageFormat::kNpy, isPng = format == ImageFormat::kPng;
  const bool isPnm = format == ImageFormat::kPnm || isNpy;  // samples and nothing else
  std::vector<std::string> lost;
  const auto lose = [&](bool isLost, const std::string& what) {
    if (isLost) lost.push_back(what);
  };
  const ByteView exif = FindExif(image);
  lose(isPnm && !image.iccProfile.empty(), "the colour profile");
  lose(isPnm && OrientationOf(image) != 1, "the orientation (--auto-orient turns the samples)");
  lose(!exif.empty() && isPnm && OrientationOf(image) == 1, "EXIF");
  lose(exif.size() > kMostJpegExif && format == ImageFormat::kJpeg,
       "EXIF, of " + std::to_string(exif.size()) + " bytes,");
  lose(isPnm && FindXmp(image) != nullptr, "XMP");
  lose(isPnm && !FindIptc(image).empty(), "IPTC");
  lose(isPnm && image.resolution.has_value(), "the resolution");
  lose(isPnm && !image.comment.empty(), "the comment");
  const bool described = format == ImageFormat::kTiff && ReadExif(exif).Has(270);
  lose(described && !image.comment.empty(), "the comment beside the EXIF description");
  lose(!std::ranges::all_of(image.xml, IsXmp), "XML other than XMP");
  lose(!std::ranges::all_of(image.uuids, IsKnown), "payloads of unknown meaning");
  lose(!isPng && !FindTexts(image).empty(), "texts beside the comment");
  if (lost.empty()) return {};
  std::string sentence = isNpy   ? "an NPY file does not hold "
                         : isPnm ? "a PNM file does not hold "
                                 : "the output does not hold ";
  for (std::size_t i = 0; i < lost.size(); ++i) {
    sentence += (i == 0 ? "" : i + 1 == lost.size() ? " and " : ", ") + lost[i];
  }
  return sentence + (lost.size() == 1 ? ", which is left out" : ", which are left out");
}

}  // namespace kel::tool
