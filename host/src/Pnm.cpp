// PBM, PGM, PPM and PAM. A header of numbers between blanks and comments, then the samples row by
// row, pixel after pixel: one byte each, or two bytes big-endian for a largest value above 255,
// or bits, or (plain forms) decimal numbers. In PBM a set bit is black.
#include "kel/host/pnm.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <string>

#include "kel/host/errors.hpp"
#include "kel/host/rows.hpp"

namespace kel::host {
namespace {

/// Marks the payload of four bytes, most significant first, that holds a largest value.
constexpr std::array<std::uint8_t, 16> kMaxValueId = {
    0x9B, 0x52, 0x0E, 0x4F, 0xC1, 0x7A, 0x47, 0x8D, 0xA6, 0x33, 0x1D, 0xE8, 0x70, 0x95, 0x2C, 0xB4};

struct Header {
  char form = 0;  ///< the digit of the magic number: '1' to '7'
  std::uint32_t width = 0, height = 0;
  std::uint32_t channels = 1, maxValue = 1;
  bool opacity = false;
  std::string tuple;  ///< what a PAM file calls its channels

  bool IsPlain() const { return form <= '3'; }
  bool IsBits() const { return form == '1' || form == '4'; }  ///< where a set one is black
  unsigned Depth() const { return static_cast<unsigned>(std::bit_width(maxValue)); }
};

[[noreturn]] void Refuse(const std::string& sentence) {
  throw Error(Failure::kInput, sentence);
}

class Parser {
 public:
  explicit Parser(BufferedSource& source) : source_(source) {}

  int Next() { return source_.NextByte(); }
  int Peek() { return source_.PeekByte(); }
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
  std::string Word() {
    SkipBlanks();
    std::string word;
    while (Peek() >= 0 && std::isspace(Peek()) == 0 && word.size() < kLongestWord) {
      word.push_back(static_cast<char>(Next()));
    }
    return word;
  }

 private:
  static constexpr std::size_t kLongestWord = 64;

  BufferedSource& source_;
};

void ReadPamHeader(Parser& parser, Header& header) {
  for (;;) {
    const std::string word = parser.Word();
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
      header.tuple = parser.Word();
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
    if (header.tuple.starts_with("CMYK")) {
      Refuse("a CMYK image; only grey and RGB images can be read, so convert it to RGB first");
    }
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

/// Bytes of a row in the file; of plain forms the least that can be.
std::uint64_t FileRowBytes(const Header& header) {
  const std::uint64_t samples = std::uint64_t{header.width} * header.channels;
  if (header.form == '4') return PackedRowBytes(samples, 1);
  return header.IsPlain() || header.maxValue <= 255 ? samples : samples * 2;
}

class PnmSource final : public RowSource {
 public:
  PnmSource(Source& source, const PnmParams& params)
      : source_(source), keepValues_(params.keepValues) {
    Open();
    for (unsigned page = 1; page < params.page && isOpen_; ++page) SkipPicture();
  }

  /// False when there are fewer pages.
  bool IsOpen() const { return isOpen_; }

  bool HasMore() override {
    if (header_.IsPlain()) Parser(source_).SkipBlanks();
    const ByteView next = source_.Peek(2);
    return next.size() == 2 && next[0] == 'P' && next[1] >= '1' && next[1] <= '7';
  }

  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    const std::size_t rowBytes = host::RowBytes(description_);
    const bool asTheyAre = !header_.IsPlain() && !header_.IsBits();
    if (asTheyAre && strideBytes == rowBytes) {  // in one piece
      Fill({to, count * rowBytes});
      Settle(to, std::size_t{count} * header_.width * header_.channels);
      return;
    }
    for (; count > 0; --count, to += strideBytes) {
      if (asTheyAre) {
        Fill({to, rowBytes});
      } else {
        ReadOther(to);
      }
      Settle(to, std::size_t{header_.width} * header_.channels);
    }
  }

 private:
  void Open() {
    Parser parser(source_);
    header_ = ReadHeader(parser);
    if (!header_.IsPlain()) parser.Next();  // the blank that ends the header
    // A file that is too short is refused before memory for its image is asked for.
    const auto left = source_.NumLeft();
    if (left && *left / FileRowBytes(header_) < header_.height) RefuseShort();
    const unsigned colours = header_.channels - (header_.opacity ? 1U : 0U);
    description_ =
        DescribeNewImage(header_.width, header_.height, colours, header_.Depth(), header_.opacity);
    const bool isFull = header_.maxValue == description_.planes[0].MaxValue();
    if (keepValues_ && !isFull) SetKeptMaxValue(description_, header_.maxValue);
  }

  void SkipPicture() {
    Bytes row(RowBytes(description_));
    for (std::uint32_t y = 0; y < header_.height; ++y) Read(1, row.data(), row.size());
    isOpen_ = HasMore();
    if (isOpen_) Open();
  }

  [[noreturn]] static void RefuseShort() { Refuse("its samples are cut off"); }

  void Fill(std::span<std::uint8_t> to) {
    if (!source_.ReadExactly(to)) RefuseShort();
  }

  /// A row of bits or of numbers in digits. Words come out big-endian, as the raw forms hold them.
  void ReadOther(std::uint8_t* to) {
    const std::size_t samples = std::size_t{header_.width} * header_.channels;
    Parser parser(source_);
    if (header_.form == '4') {
      packed_.resize(FileRowBytes(header_));
      Fill(packed_);
      UnpackSamples(packed_.data(), samples, 1, to);
    } else if (header_.form == '1') {
      for (std::size_t i = 0; i < samples; ++i) to[i] = parser.Digit();
    } else {
      for (std::size_t i = 0; i < samples; ++i) {
        const std::uint32_t value = parser.Number();
        if (value > header_.maxValue) RefuseLarge();
        if (header_.maxValue > 255) *to++ = static_cast<std::uint8_t>(value >> 8);
        *to++ = static_cast<std::uint8_t>(value);
      }
    }
    if (!header_.IsBits()) return;
    for (std::size_t i = 0; i < samples; ++i) to[i] ^= 1;
  }

  [[noreturn]] static void RefuseLarge() {
    Refuse("a sample is above the largest value that its header says");
  }

  /// Makes samples as the file holds them what a description promises.
  void Settle(std::uint8_t* bytes, std::size_t count) const {
    if (header_.maxValue <= 255) {
      SettleAs(bytes, count);
    } else {
      auto* words = reinterpret_cast<std::uint16_t*>(bytes);
      SwapBigEndian(words, count);
      SettleAs(words, count);
    }
  }

  template <class Sample>
  void SettleAs(Sample* samples, std::size_t count) const {
    constexpr Sample kMost = static_cast<Sample>(~Sample{0});
    if (header_.maxValue == kMost) return;
    if (Largest(samples, count) > header_.maxValue) RefuseLarge();
    const std::uint32_t full = description_.planes[0].MaxValue();
    if (!keepValues_ && full != header_.maxValue) Rescale(samples, count, header_.maxValue, full);
  }

  BufferedSource source_;
  bool keepValues_, isOpen_ = true;
  Header header_;
  Bytes packed_;
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
  const std::uint32_t kept = KeptMaxValue(image);
  const std::string most = std::to_string(kept != 0 ? kept : image.planes[0].MaxValue());
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

class PnmSink final : public RowSink {
 public:
  PnmSink(Sink& sink, PnmKind kind) : sink_(sink), kind_(kind) {}

  void Begin(const Image& description) override {
    CheckWritable(description, kind_);
    const std::string head = MakeHeader(description, kind_);
    sink_.Write({reinterpret_cast<const std::uint8_t*>(head.data()), head.size()});
    rowSamples_ = std::size_t{description.width} * description.planes.size();
    words_ = description.planes[0].Depth() > 8;
    keptMaxValue_ = KeptMaxValue(description);
  }

  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override {
    const std::size_t rowBytes = rowSamples_ * (words_ ? 2 : 1);
    if (kind_ != PnmKind::kPbm && strideBytes == rowBytes) {
      WriteSamples(rows, count * rowSamples_);
      return;
    }
    for (; count > 0; --count, rows += strideBytes) {
      if (kind_ == PnmKind::kPbm) {
        WriteBits(rows);
      } else {
        WriteSamples(rows, rowSamples_);
      }
    }
  }

  void Finish() override { sink_.Finish(); }

 private:
  void WriteSamples(const std::uint8_t* samples, std::size_t count) {
    if (!words_ && keptMaxValue_ == 0) {
      sink_.Write({samples, count});
      return;
    }
    bytes_.assign(samples, samples + (words_ ? 2 : 1) * count);
    if (keptMaxValue_ != 0) Limit(count);
    if (words_) SwapBigEndian(reinterpret_cast<std::uint16_t*>(bytes_.data()), count);
    sink_.Write(bytes_);
  }

  /// No sample may be above what the header says.
  void Limit(std::size_t count) {
    WithSampleType(words_ ? 2 : 1, [&](auto sample) {
      using Sample = decltype(sample);
      auto* samples = reinterpret_cast<Sample*>(bytes_.data());
      for (std::size_t i = 0; i < count; ++i) {
        samples[i] = std::min(samples[i], static_cast<Sample>(keptMaxValue_));
      }
    });
  }

  void WriteBits(const std::uint8_t* row) {
    bytes_.assign(row, row + rowSamples_);
    for (std::uint8_t& value : bytes_) value ^= 1;
    packed_.resize(PackedRowBytes(rowSamples_, 1));
    PackSamples(bytes_.data(), rowSamples_, 1, packed_.data());
    sink_.Write(packed_);
  }

  Sink& sink_;
  PnmKind kind_;
  std::size_t rowSamples_ = 0;
  bool words_ = false;
  std::uint32_t keptMaxValue_ = 0;
  Bytes bytes_, packed_;
};

}  // namespace

std::uint32_t KeptMaxValue(const Image& image) {
  const auto found = std::ranges::find(image.uuids, kMaxValueId, &UuidPayload::id);
  if (found == image.uuids.end() || found->data.size() != 4 || image.planes.empty()) return 0;
  const Bytes& data = found->data;
  const std::uint32_t value =
      std::uint32_t{data[0]} << 24 | std::uint32_t{data[1]} << 16 | data[2] * 256U | data[3];
  return value < image.planes[0].MaxValue() ? value : 0;
}

void SetKeptMaxValue(Image& image, std::uint32_t value) {
  std::erase_if(image.uuids, [](const UuidPayload& payload) { return payload.id == kMaxValueId; });
  if (value == 0) return;
  UuidPayload& payload = image.uuids.emplace_back();
  payload.id = kMaxValueId;
  for (const int shift : {24, 16, 8, 0}) {
    payload.data.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

void UseFullRange(Image& image) {
  const std::uint64_t from = KeptMaxValue(image);
  SetKeptMaxValue(image, 0);
  if (from == 0) return;
  for (Plane& plane : image.planes) {
    const std::uint64_t to = plane.MaxValue();
    for (std::uint32_t y = 0; y < plane.Height(); ++y) {
      WithSampleType(plane.BytesPerSample(), [&](auto sample) {
        auto* row = plane.Row<decltype(sample)>(y);
        for (std::uint32_t x = 0; x < plane.Width(); ++x) {
          const std::uint64_t value = std::min<std::uint64_t>(row[x], from);
          row[x] = static_cast<decltype(sample)>((value * to + from / 2) / from);
        }
      });
    }
  }
}

std::unique_ptr<RowSource> OpenPnm(Source& source, const PnmParams& params) {
  auto pnm = std::make_unique<PnmSource>(source, params);
  if (!pnm->IsOpen()) return nullptr;
  return pnm;
}

Image ReadPnm(Source& source) {
  return ReadImage(*OpenPnm(source));
}

std::unique_ptr<RowSink> MakePnm(Sink& sink, PnmKind kind) {
  return std::make_unique<PnmSink>(sink, kind);
}

void WritePnm(const Image& image, Sink& sink, PnmKind kind) {
  CheckWritable(image, kind);
  ImageRowSource rows(image);
  CopyRows(rows, *MakePnm(sink, kind));
}

}  // namespace kel::host
