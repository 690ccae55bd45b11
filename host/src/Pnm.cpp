// PBM, PGM, PPM and PAM. A header of numbers between blanks and comments, then the samples row by
// row, pixel after pixel: one byte each, or two bytes big-endian for a largest value above 255,
// or bits, or (plain forms) decimal numbers. In PBM a set bit is black.
#include "kel/host/pnm.hpp"

#include <bit>
#include <cctype>
#include <string_view>

#include "kel/host/errors.hpp"
#include "kel/host/rows.hpp"

namespace kel::host {
namespace {

struct Header {
  char form = 0;  ///< the digit of the magic number: '1' to '7'
  std::uint32_t width = 0, height = 0;
  std::uint32_t channels = 1, maxValue = 1;
  bool opacity = false;

  bool IsPlain() const { return form <= '3'; }
  bool IsBits() const { return form == '1' || form == '4'; }
  unsigned Depth() const { return static_cast<unsigned>(std::bit_width(maxValue)); }
};

[[noreturn]] void Refuse(const std::string& sentence) {
  throw Error(Failure::kInput, sentence);
}

class Parser {
 public:
  explicit Parser(ByteView bytes) : bytes_(bytes) {}

  int Next() { return at_ < bytes_.size() ? bytes_[at_++] : -1; }
  int Peek() const { return at_ < bytes_.size() ? bytes_[at_] : -1; }
  void SkipBlanks() {
    while (std::isspace(Peek()) != 0 || Peek() == '#') {
      if (Next() == '#') {
        while (Peek() >= 0 && Peek() != '\n') Next();
      }
    }
  }
  std::uint32_t Number() {
    SkipBlanks();
    if (std::isdigit(Peek()) == 0) Refuse("its header or samples are damaged or cut off");
    std::uint64_t value = 0;
    while (std::isdigit(Peek()) != 0) {
      value = value * 10 + static_cast<std::uint64_t>(Next() - '0');
      if (value > INT32_MAX) Refuse("a number in it is too large");
    }
    return static_cast<std::uint32_t>(value);
  }
  /// A digit of a plain bitmap, which need not stand between blanks.
  bool Digit() {
    SkipBlanks();
    const int digit = Next();
    if (digit != '0' && digit != '1') Refuse("its samples are damaged or cut off");
    return digit == '1';
  }
  std::string_view Word() {
    SkipBlanks();
    const std::size_t first = at_;
    while (Peek() >= 0 && std::isspace(Peek()) == 0) Next();
    return {reinterpret_cast<const char*>(bytes_.data()) + first, at_ - first};
  }
  /// The rest, after the single blank that ends a header.
  ByteView Rest() const { return bytes_.subspan(at_); }

 private:
  ByteView bytes_;
  std::size_t at_ = 0;
};

void ReadPamHeader(Parser& parser, Header& header) {
  for (;;) {
    const std::string_view word = parser.Word();
    if (word == "ENDHDR") return;
    if (word == "WIDTH") {
      header.width = parser.Number();
    } else if (word == "HEIGHT") {
      header.height = parser.Number();
    } else if (word == "DEPTH") {
      header.channels = parser.Number();
    } else if (word == "MAXVAL") {
      header.maxValue = parser.Number();
    } else if (word == "TUPLTYPE") {
      parser.Word();  // the number of channels says as much
    } else {
      Refuse("its PAM header is damaged");
    }
  }
}

Header ReadHeader(Parser& parser) {
  Header header;
  const int first = parser.Next();
  const int form = parser.Next();
  if (first != 'P' || form < '1' || form > '7') Refuse("not a PBM, PGM, PPM or PAM file");
  header.form = static_cast<char>(form);
  if (header.form == '7') {
    ReadPamHeader(parser, header);
    header.opacity = header.channels == 2 || header.channels == 4;
  } else {
    header.width = parser.Number();
    header.height = parser.Number();
    if (!header.IsBits()) header.maxValue = parser.Number();
    header.channels = header.form == '3' || header.form == '6' ? 3 : 1;
  }
  if (header.width == 0 || header.height == 0) Refuse("the image is empty");
  if (header.channels < 1 || header.channels > 4) {
    Refuse("a PAM file of " + std::to_string(header.channels) + " channels; 1 to 4 can be read");
  }
  if (header.maxValue < 1 || header.maxValue > 65535) Refuse("its largest value is not allowed");
  return header;
}

/// Numbers one after another, in the order of the file.
class Samples {
 public:
  /// Refuses a file that is too short before memory for its image is asked for.
  Samples(const Header& header, Parser& parser) : header_(header), parser_(parser) {
    if (!header.IsPlain()) parser.Next();  // the blank that ends the header
    rest_ = parser.Rest();
    const std::uint64_t rowSamples = std::uint64_t{header.width} * header.channels;
    const std::uint64_t rowBytes = header.form == '4' ? PackedRowBytes(rowSamples, 1)
                                   : header.IsPlain() || header.maxValue <= 255 ? rowSamples
                                                                                : rowSamples * 2;
    if (rest_.size() / rowBytes < header.height) Refuse("its samples are cut off");
  }
  void BeginRow() { bit_ = 8; }
  std::uint32_t Next() {
    if (header_.form == '1') return parser_.Digit() ? 0 : 1;
    if (header_.IsPlain()) return Checked(parser_.Number());
    if (header_.IsBits()) {
      if (bit_ == 8) {
        current_ = Byte();
        bit_ = 0;
      }
      return (current_ >> (7 - bit_++) & 1) ^ 1U;
    }
    const std::uint32_t high = Byte();
    return Checked(header_.maxValue <= 255 ? high : high << 8 | Byte());
  }

 private:
  std::uint32_t Byte() { return rest_[at_++]; }
  std::uint32_t Checked(std::uint32_t value) const {
    if (value > header_.maxValue)
      Refuse("a sample is above the largest value that its header says");
    return value;
  }

  const Header& header_;
  Parser& parser_;
  ByteView rest_;
  std::size_t at_ = 0;
  std::uint32_t current_ = 0;
  unsigned bit_ = 8;
};

void CheckWritable(const Image& image, PnmKind kind) {
  const auto refuse = [](const char* sentence) { throw Error(Failure::kOutput, sentence); };
  const unsigned colours = NumColours(image);
  const std::size_t channels = colours + (OpacityPlane(image) != nullptr ? 1U : 0U);
  if ((colours != 1 && colours != 3) || image.planes.size() != channels) {
    refuse("PBM, PGM, PPM and PAM files hold grey or RGB, with or without opacity, nothing else");
  }
  const unsigned depth = image.planes[0].Depth();
  for (const Plane& plane : image.planes) {
    if (plane.Depth() != depth || depth > 16 || plane.Width() != image.width ||
        plane.Height() != image.height) {
      refuse("PBM, PGM, PPM and PAM files hold planes of one size and one depth up to 16 bits");
    }
  }
  if (kind == PnmKind::kPbm && (depth != 1 || channels != 1)) {
    refuse("PBM files hold one channel of 1 bit");
  }
}

std::string MakeHeader(const Image& image, PnmKind kind) {
  const std::string width = std::to_string(image.width), height = std::to_string(image.height);
  const std::string most = std::to_string(image.planes[0].MaxValue());
  const bool colour = NumColours(image) == 3;
  const bool opacity = OpacityPlane(image) != nullptr;
  if (kind == PnmKind::kPbm) return "P4\n" + width + " " + height + "\n";
  if (!opacity && kind == PnmKind::kPlainest) {
    return (colour ? "P6\n" : "P5\n") + width + " " + height + "\n" + most + "\n";
  }
  const char* type = colour ? "RGB" : most == "1" ? "BLACKANDWHITE" : "GRAYSCALE";
  return "P7\nWIDTH " + width + "\nHEIGHT " + height + "\nDEPTH " +
         std::to_string(image.planes.size()) + "\nMAXVAL " + most + "\nTUPLTYPE " + type +
         (opacity ? "_ALPHA" : "") + "\nENDHDR\n";
}

}  // namespace

Image ReadPnm(Source& source) {
  Bytes storage;
  Parser parser(ReadAll(source, storage));
  const Header header = ReadHeader(parser);
  Samples samples(header, parser);
  Image image = MakeImage(header.width, header.height, header.channels - (header.opacity ? 1 : 0),
                          header.Depth(), header.opacity);
  const std::uint32_t full = image.planes[0].MaxValue();
  std::vector<std::uint32_t> row(std::size_t{header.width} * header.channels);
  for (std::uint32_t y = 0; y < header.height; ++y) {
    samples.BeginRow();
    for (std::uint32_t& value : row) {
      value = samples.Next();
      if (full != header.maxValue) value = (value * full + header.maxValue / 2) / header.maxValue;
    }
    SplitRow(row.data(), image, y);
  }
  return image;
}

void WritePnm(const Image& image, Sink& sink, PnmKind kind) {
  CheckWritable(image, kind);
  const std::string head = MakeHeader(image, kind);
  sink.Write(ByteView(reinterpret_cast<const std::uint8_t*>(head.data()), head.size()));

  std::vector<std::uint32_t> row(image.width * image.planes.size());
  Bytes bytes;
  for (std::uint32_t y = 0; y < image.height; ++y) {
    JoinRow(image, y, row.data());
    bytes.clear();
    if (kind == PnmKind::kPbm) {
      bytes.resize(PackedRowBytes(row.size(), 1));
      PackedRowWriter writer(bytes.data());
      for (const std::uint32_t value : row) writer.Put(value ^ 1U, 1);
      writer.Finish();
    } else {
      const bool words = image.planes[0].Depth() > 8;
      for (const std::uint32_t value : row) {
        if (words) bytes.push_back(static_cast<std::uint8_t>(value >> 8));
        bytes.push_back(static_cast<std::uint8_t>(value));
      }
    }
    sink.Write(bytes);
  }
  sink.Finish();
}

}  // namespace kel::host
