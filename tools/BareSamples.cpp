// Raw samples, the arrays of NumPy (NPY), and PGX, which is one component behind a line of text.
#include "BareSamples.hpp"

#include <kel/KelFormat.h>
#include <kel/host/errors.hpp>
#include <kel/host/rows.hpp>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <string_view>

namespace kel::tool {
namespace {

using host::BufferedSource;
using host::ByteView;
using host::Error;
using host::Failure;

constexpr unsigned kMostDepth = format::kMostEncodedDepth;
constexpr std::uint32_t kMostChannels = format::kMostComponents;

unsigned BytesOf(unsigned depth) {
  return depth <= 8 ? 1 : depth <= 16 ? 2 : 4;
}

bool IsNative(bool bigEndian) {
  return bigEndian == (std::endian::native == std::endian::big);
}

/// Reverses the bytes of each sample.
void Swap(std::uint8_t* samples, std::size_t count, unsigned bytesEach) {
  if (bytesEach == 2) {
    host::SwapBytes(reinterpret_cast<std::uint16_t*>(samples), count);
  } else if (bytesEach == 4) {
    for (std::size_t i = 0; i < count; ++i) std::reverse(samples + 4 * i, samples + 4 * i + 4);
  }
}

class BareSource final : public host::RowSource {
 public:
  BareSource(BufferedSource& source, const BareForm& form)
      : source_(source), form_(form), bytesEach_(BytesOf(form.depth)) {
    if (form.width == 0 || form.height == 0) throw Error(Failure::kInput, "the image is empty");
    const std::uint64_t rowBytes = std::uint64_t{form.width} * form.channels * bytesEach_;
    const auto left = source.NumLeft();
    if (left && *left / rowBytes < form.height) RefuseShort();
    const bool ordinary = form.channels <= 4;
    description_ = host::DescribeNewImage(
        form.width, form.height, ordinary ? form.channels - (form.channels % 2 == 0 ? 1 : 0) : 1,
        form.depth, form.channels == 2 || form.channels == 4);
    while (description_.planes.size() < form.channels) {
      host::Plane& plane = description_.planes.emplace_back(
          host::Plane::WithoutSamples(form.width, form.height, form.depth));
      plane.role = host::ChannelRole::kOther;
      plane.colour = 0;
    }
  }

  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    const std::size_t samples = std::size_t{form_.width} * form_.channels;
    for (; count > 0; --count, to += strideBytes) {
      if (!source_.ReadExactly({to, samples * bytesEach_})) RefuseShort();
      if (!IsNative(form_.bigEndian)) Swap(to, samples, bytesEach_);
      host::WithSampleType(bytesEach_, [&](auto sample) {
        using Sample = decltype(sample);
        if (form_.depth == 8 * sizeof sample) return;
        const auto* row = reinterpret_cast<const Sample*>(to);
        if (std::uint32_t{*std::max_element(row, row + samples)} >> form_.depth == 0) return;
        throw Error(Failure::kInput,
                    "a sample has more than " + std::to_string(form_.depth) + " bits");
      });
    }
  }
  bool HasMore() override { return source_.PeekByte() >= 0; }

 private:
  [[noreturn]] static void RefuseShort() {
    throw Error(Failure::kInput, "it has fewer samples than its form says");
  }

  BufferedSource& source_;
  BareForm form_;
  unsigned bytesEach_;
};

/// Takes a number off the front of a text.
bool TakeNumber(std::string_view& text, std::uint32_t& number) {
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  if (parsed.ec != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(parsed.ptr - text.data()));
  return true;
}

bool Take(std::string_view& text, std::string_view expected) {
  if (!text.starts_with(expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

// ---- NPY ----

constexpr std::size_t kLongestHeader = 65536;

[[noreturn]] void RefuseNpy(const std::string& sentence) {
  throw Error(Failure::kInput, "an NPY file " + sentence);
}

/// The dictionary of the header: behind name and version its length, in two bytes, later in four.
std::string ReadNpyHeader(BufferedSource& source) {
  std::uint8_t front[8], length[4] = {};
  if (!source.ReadExactly(front)) RefuseNpy("that is cut off");
  if (!source.ReadExactly({length, front[6] == 1 ? 2U : 4U})) RefuseNpy("that is cut off");
  const std::size_t bytes = length[0] | length[1] << 8 | length[2] << 16;
  if (length[3] != 0 || bytes > kLongestHeader) RefuseNpy("whose header is too long");
  std::string header(bytes, ' ');
  if (!source.ReadExactly({reinterpret_cast<std::uint8_t*>(header.data()), bytes})) {
    RefuseNpy("that is cut off");
  }
  return header;
}

/// What stands behind a key of the dictionary.
std::string_view ValueOf(std::string_view header, std::string_view key) {
  const std::size_t at = header.find(key);
  if (at == header.npos) RefuseNpy("whose header is damaged");
  header.remove_prefix(at + key.size());
  header.remove_prefix(std::min(header.find_first_not_of(" :'\"("), header.size()));
  return header;
}

BareForm ParseNpyHeader(const std::string& header) {
  BareForm form;
  const std::string_view type = ValueOf(header, "'descr'");
  form.bigEndian = type.starts_with('>');
  const std::string_view kind = type.substr(std::min<std::size_t>(1, type.size()), 3);
  if (kind == "u1'") {
    form.depth = 8;
  } else if (kind == "u2'") {
    form.depth = 16;
  } else if (kind == "b1'") {
    form.depth = 1;
  } else {
    RefuseNpy("of type " + std::string(type.substr(0, type.find('\''))) +
              "; whole numbers without sign of one or two bytes can be read (u1, u2), and b1");
  }
  if (ValueOf(header, "'fortran_order'").starts_with("True")) {
    RefuseNpy("in Fortran order; numpy.ascontiguousarray changes it");
  }
  std::string_view shape = ValueOf(header, "'shape'");
  const bool isImage = TakeNumber(shape, form.height) && Take(shape, ",") && Take(shape, " ") &&
                       TakeNumber(shape, form.width);
  if (isImage && Take(shape, ", ") && !TakeNumber(shape, form.channels)) form.channels = 0;
  if (!isImage || !Take(shape, ")") || form.channels == 0 || form.channels > kMostChannels) {
    RefuseNpy("of another shape than (rows, columns) or (rows, columns, channels)");
  }
  return form;
}

class NpySink final : public host::RowSink {
 public:
  explicit NpySink(host::Sink& sink) : sink_(sink) {}

  void Begin(const host::Image& description) override {
    constexpr std::size_t kAlignment = 64, kFrontBytes = 10;
    if (description.palette || !host::HasPlainRows(description)) {
      throw Error(Failure::kOutput, "NPY files hold channels of one size and depth");
    }
    const host::Plane& plane = description.planes[0];
    bytesEach_ = plane.BytesPerSample();
    const std::size_t channels = description.planes.size();
    rowSamples_ = std::size_t{description.width} * channels;
    std::string header = std::string("{'descr': '") + (bytesEach_ == 1 ? '|' : '<') + 'u' +
                         std::to_string(bytesEach_) + "', 'fortran_order': False, 'shape': (" +
                         std::to_string(description.height) + ", " +
                         std::to_string(description.width) +
                         (channels == 1 ? "" : ", " + std::to_string(channels)) + "), }";
    while ((kFrontBytes + header.size() + 1) % kAlignment != 0) header += ' ';
    header += '\n';
    host::Bytes front = {0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0};
    front.push_back(static_cast<std::uint8_t>(header.size()));
    front.push_back(static_cast<std::uint8_t>(header.size() >> 8));
    front.insert(front.end(), header.begin(), header.end());
    sink_.Write(front);
  }

  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override {
    for (; count > 0; --count, rows += strideBytes) {
      row_.assign(rows, rows + rowSamples_ * bytesEach_);
      if (!IsNative(false)) Swap(row_.data(), rowSamples_, bytesEach_);
      sink_.Write(row_);
    }
  }

  void Finish() override { sink_.Finish(); }

 private:
  host::Sink& sink_;
  std::size_t rowSamples_ = 0;
  unsigned bytesEach_ = 1;
  host::Bytes row_;
};

}  // namespace

std::optional<BareForm> ParseBareForm(const std::string& text) {
  BareForm form;
  std::string_view rest(text);
  if (!TakeNumber(rest, form.width) || !Take(rest, "x") || !TakeNumber(rest, form.height))
    return {};
  if (Take(rest, "x") && !TakeNumber(rest, form.channels)) return {};
  if (!Take(rest, ":u") || !TakeNumber(rest, form.depth)) return {};
  form.bigEndian = rest == "be";
  const bool takesOrder = rest == "le" || rest == "be";
  const bool fine = form.width > 0 && form.height > 0 && form.channels > 0 &&
                    form.channels <= kMostChannels && form.depth > 0 && form.depth <= kMostDepth &&
                    (takesOrder || (rest.empty() && form.depth <= 8));
  return fine ? std::optional(form) : std::nullopt;
}

std::unique_ptr<host::RowSource> OpenBare(BufferedSource& source, const BareForm& form) {
  return std::make_unique<BareSource>(source, form);
}

std::unique_ptr<host::RowSource> OpenNpy(BufferedSource& source, const ReadSettings&) {
  return OpenBare(source, ParseNpyHeader(ReadNpyHeader(source)));
}

std::unique_ptr<host::RowSink> MakeNpy(host::Sink& sink) {
  return std::make_unique<NpySink>(sink);
}

/// "PG ML +8 640 480": the order of bytes (ML: most significant first), sign and depth, columns,
/// rows.
std::unique_ptr<host::RowSource> OpenPgx(BufferedSource& source, const ReadSettings&) {
  constexpr std::size_t kLongestLine = 100;
  std::string line;
  for (int c = source.NextByte(); c >= 0 && c != '\n' && line.size() < kLongestLine;
       c = source.NextByte()) {
    line += static_cast<char>(c);
  }
  BareForm form;
  std::string_view rest(line);
  const auto blanks = [&] {
    rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r"), rest.size()));
  };
  Take(rest, "PG");
  blanks();
  form.bigEndian = Take(rest, "ML");
  bool fine = form.bigEndian || Take(rest, "LM");
  blanks();
  const bool isSigned = Take(rest, "-");
  Take(rest, "+");
  for (std::uint32_t* number : {&form.depth, &form.width, &form.height}) {
    blanks();
    fine = fine && TakeNumber(rest, *number);
  }
  if (!fine || form.depth == 0) throw Error(Failure::kInput, "a PGX file whose header is damaged");
  if (isSigned || form.depth > kMostDepth) {
    throw Error(Failure::kInput, "a PGX file of samples with a sign, or of more than 28 bits");
  }
  return OpenBare(source, form);
}

}  // namespace kel::tool
