// The formats of image files as one table: names, endings, first bytes, and who reads and writes
// them.
//
// A format whose library was not there when the command was built stands in the table without
// reader and writer (KEL_HAS_ + name), so that its files are still told apart and refused with the
// reason.
#include <kel/host/errors.hpp>
#include <kel/host/pnm.hpp>

#include <algorithm>
#include <cctype>
#include <span>
#include <string_view>
#include <utility>

#include "BareSamples.hpp"
#include "ImageFile.hpp"

namespace kel::tool {
namespace {

using namespace std::string_view_literals;
using host::BufferedSource;
using host::ByteView;
using host::Error;
using host::Failure;
using host::PnmKind;
using host::RowSink;
using host::RowSource;

constexpr std::size_t kMagicBytes = 16;

/// Rows that tell, behind the last one, when other pictures follow.
class FirstPage final : public RowSource {
 public:
  FirstPage(std::unique_ptr<RowSource> rows, Warn warn, std::string sentence)
      : rows_(std::move(rows)), warn_(std::move(warn)), sentence_(std::move(sentence)) {
    host::CopyDescription(rows_->Description(), description_);
    left_ = description_.height;
  }
  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    rows_->Read(count, to, strideBytes);
    left_ -= count;
    if (left_ == 0 && rows_->HasMore()) warn_(sentence_);
  }

 private:
  std::unique_ptr<RowSource> rows_;
  Warn warn_;
  std::string sentence_;
  std::uint32_t left_ = 0;
};

std::unique_ptr<RowSource> OpenPnm(BufferedSource& source, const ReadSettings& settings) {
  auto rows = host::OpenPnm(
      source, {.page = std::max(settings.page, 1U), .keepValues = settings.keepValues});
  if (rows == nullptr || settings.page != 0) return rows;
  return std::make_unique<FirstPage>(
      std::move(rows), settings.warn,
      "only the first of several pictures is taken; --page takes others");
}

std::string EndingOf(const std::string& name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos) return {};
  std::string ending = name.substr(dot);
  std::ranges::transform(ending, ending.begin(), [](unsigned char c) { return std::tolower(c); });
  return ending;
}

std::unique_ptr<RowSink> MakePnm(host::Sink& sink, const std::string& ending) {
  return host::MakePnm(sink, ending == ".pbm"   ? PnmKind::kPbm
                             : ending == ".pam" ? PnmKind::kPam
                                                : PnmKind::kPlainest);
}

template <std::unique_ptr<RowSink> (*kMake)(host::Sink&)>
std::unique_ptr<RowSink> Make(host::Sink& sink, const std::string&) {
  return kMake(sink);
}

bool BeginsWith(ByteView bytes, std::string_view text) {
  return bytes.size() >= text.size() &&
         std::equal(text.begin(), text.end(), bytes.begin(),
                    [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
}

bool IsPnm(ByteView bytes) {
  const bool magic = bytes.size() > 2 && bytes[0] == 'P' && bytes[1] >= '1' && bytes[1] <= '7';
  return magic && (std::isspace(bytes[2]) != 0 || bytes[2] == '#');
}

bool IsTiff(ByteView bytes) {
  return BeginsWith(bytes, "II*\0"sv) || BeginsWith(bytes, "MM\0*"sv) ||
         BeginsWith(bytes, "II+\0"sv) || BeginsWith(bytes, "MM\0+"sv);
}

struct FormatEntry {
  ImageFormat format;
  const char* name;
  const char* endings;  ///< one behind the other; the first is that of files in folders
  bool (*recognise)(ByteView);
  /// Null when files of the format cannot be read, or written.
  std::unique_ptr<RowSource> (*open)(BufferedSource&, const ReadSettings&);
  std::unique_ptr<RowSink> (*make)(host::Sink&, const std::string& ending);
};

constexpr FormatEntry kFormats[] = {
    {ImageFormat::kPng, "PNG", ".png",
     [](ByteView bytes) { return BeginsWith(bytes, "\x89PNG\r\n\x1A\n"sv); },
#ifdef KEL_HAS_PNG
     OpenPng, Make<MakePng>},
#else
     nullptr, nullptr},
#endif
    {ImageFormat::kPnm, "PNM", ".ppm.pgm.pbm.pnm.pam", IsPnm, OpenPnm, MakePnm},
    {ImageFormat::kTiff, "TIFF", ".tif.tiff", IsTiff,
#ifdef KEL_HAS_TIFF
     OpenTiff, Make<MakeTiff>},
#else
     nullptr, nullptr},
#endif
    {ImageFormat::kJpeg, "JPEG", ".jpg.jpeg",
     [](ByteView bytes) { return BeginsWith(bytes, "\xFF\xD8\xFF"sv); },
#ifdef KEL_HAS_JPEG
     OpenJpeg, Make<MakeJpeg>},
#else
     nullptr, nullptr},
#endif
    {ImageFormat::kWebp, "WebP", ".webp",
     [](ByteView bytes) {
       return bytes.size() >= 12 && BeginsWith(bytes, "RIFF"sv) &&
              BeginsWith(bytes.subspan(8), "WEBP"sv);
     },
#ifdef KEL_HAS_WEBP
     OpenWebp, nullptr},
#else
     nullptr, nullptr},
#endif
    {ImageFormat::kGif, "GIF", ".gif", [](ByteView bytes) { return BeginsWith(bytes, "GIF8"sv); },
#ifdef KEL_HAS_GIF
     OpenGif, nullptr},
#else
     nullptr, nullptr},
#endif
    {ImageFormat::kNpy, "NPY", ".npy",
     [](ByteView bytes) { return BeginsWith(bytes, "\x93NUMPY"sv); }, OpenNpy, Make<MakeNpy>},
    {ImageFormat::kPgx, "PGX", ".pgx", [](ByteView bytes) { return BeginsWith(bytes, "PG "sv); },
     OpenPgx, nullptr},
};

const FormatEntry& EntryOf(ImageFormat format) {
  return *std::ranges::find(kFormats, format, &FormatEntry::format);
}

/// ".tif", ".tiff" of ".tif.tiff".
std::vector<std::string> EndingsOf(const FormatEntry& entry) {
  std::vector<std::string> endings;
  for (const char c : std::string_view(entry.endings)) {
    if (c == '.') endings.emplace_back();
    endings.back() += c;
  }
  return endings;
}

template <class Predicate>
std::vector<std::string> EndingsOfThose(Predicate isMeant) {
  std::vector<std::string> endings;
  for (const FormatEntry& entry : kFormats) {
    if (isMeant(entry)) std::ranges::move(EndingsOf(entry), std::back_inserter(endings));
  }
  return endings;
}

/// "A, B or C" of the names of formats that are read.
std::string ReadableNames() {
  std::vector<std::string> names;
  for (const FormatEntry& entry : kFormats) {
    if (entry.open != nullptr) names.emplace_back(entry.name);
  }
  std::string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
  }
  return text;
}

std::string WhyUnknown(ByteView first) {
  if (BeginsWith(first, "\0\0\0\x0CjP  "sv) || BeginsWith(first, "\xFF\x4F\xFF"sv)) {
    return "an ordinary JPEG 2000 file, which is not among the image files that kel reads";
  }
  const bool isKel = BeginsWith(first, "\0\0\0\x0Cweab"sv) || BeginsWith(first, "\xAB\x4F"sv);
  return isKel ? "a Kel file already" : "not a " + ReadableNames() + " image";
}

}  // namespace

std::optional<ImageFormat> RecogniseImage(ByteView bytes) {
  const auto* found =
      std::ranges::find_if(kFormats, [&](const auto& entry) { return entry.recognise(bytes); });
  return found == std::end(kFormats) ? std::nullopt : std::optional(found->format);
}

std::optional<ImageFormat> FormatOfName(const std::string& name) {
  const std::string ending = EndingOf(name);
  const auto* found = std::ranges::find_if(kFormats, [&](const FormatEntry& entry) {
    return std::ranges::count(EndingsOf(entry), ending) != 0;
  });
  return found == std::end(kFormats) ? std::nullopt : std::optional(found->format);
}

bool IsWrittenName(const std::string& name) {
  const std::optional<ImageFormat> format = FormatOfName(name);
  return format && EntryOf(*format).make != nullptr;
}

std::vector<std::string> WrittenEndings() {
  return EndingsOfThose([](const FormatEntry& entry) { return entry.make != nullptr; });
}

std::vector<std::string> ReadEndings() {
  return EndingsOfThose([](const FormatEntry& entry) { return entry.open != nullptr; });
}

std::unique_ptr<RowSource> OpenImage(BufferedSource& source, const ReadSettings& settings) {
  if (settings.bare) {
    return std::make_unique<FirstPage>(OpenBare(source, *settings.bare), settings.warn,
                                       "there are more samples than the form says");
  }
  const ByteView first = source.Peek(kMagicBytes);
  if (first.empty()) throw Error(Failure::kInput, "the file is empty");
  const std::optional<ImageFormat> format = RecogniseImage(first);
  if (!format) throw Error(Failure::kInput, WhyUnknown(first));
  const FormatEntry& entry = EntryOf(*format);
  if (entry.open == nullptr) {
    throw Error(Failure::kInput,
                std::string(entry.name) + " files are not read by this build of kel");
  }
  return entry.open(source, settings);
}

std::unique_ptr<RowSink> MakeImageFile(const std::string& name, host::Sink& sink) {
  const FormatEntry& entry = EntryOf(FormatOfName(name).value());
  if (entry.make == nullptr) {
    throw Error(Failure::kOutput,
                std::string(entry.name) + " files are not written by this build of kel");
  }
  return entry.make(sink, EndingOf(name));
}

}  // namespace kel::tool
