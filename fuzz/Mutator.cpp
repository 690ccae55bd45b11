// Changes that random bytes hardly make, for every target whose input holds a file: parts of it are
// taken away, repeated, exchanged and moved, lengths and plane counts changed. Parts are the boxes,
// segments, tile-parts, packets and bands of a Kel file, the chunks of PNG and the segments of JPEG
// files. In front of the file an input may have a few bytes of its own. Other inputs, and every
// second one, are left to libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string_view>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace {

using Bytes = std::vector<std::uint8_t>;

enum class Kind { kBox, kSegment, kTilePart, kPacket, kBand, kChunk };

/// A part of the file, and where its length stands in it, which counts the bytes from `counted` on.
struct Part {
  Kind kind;
  std::size_t from, to;
  std::size_t lengthAt, lengthBytes, counted;
};

std::size_t Load(const Bytes& data, std::size_t at, std::size_t n) {
  std::size_t value = 0;
  for (std::size_t i = 0; i < n; ++i)
    value = value << 8 | (at + i < data.size() ? data[at + i] : 0);
  return value;
}

void Store(Bytes& data, std::size_t at, std::size_t n, std::size_t value) {
  for (; n > 0; value >>= 8) {
    if (at + --n < data.size()) data[at + n] = static_cast<std::uint8_t>(value);
  }
}

bool Has(const Bytes& data, std::size_t at, std::string_view text) {
  return at + text.size() <= data.size() && std::memcmp(&data[at], text.data(), text.size()) == 0;
}

/// Finds the parts of a file by its own lengths, each held inside the one around it.
class Walk {
 public:
  explicit Walk(const Bytes& data) : data_(data) {
    for (std::size_t at = 0; at < 8 && at + 12 < data.size() && !FileAt(at);) ++at;
  }
  std::vector<Part> parts;
  bool isPng = false;

 private:
  bool FileAt(std::size_t at) {
    using namespace std::string_view_literals;
    const std::size_t end = data_.size();
    if (Has(data_, at, "\xAB\x4F\xAB"sv) || Has(data_, at, "\xFF\x4F\xFF"sv)) {
      CodeStream(at, end);
    } else if (Has(data_, at + 4, "weab") || Has(data_, at + 4, "jP  ")) {
      Boxes(at, end);
    } else if (Has(data_, at, "\x89PNG"sv)) {
      Chunks(at + 8);
    } else if (Has(data_, at, "\xFF\xD8\xFF"sv)) {
      Segments(at + 2, end, 0xFF, 0xDA);
    } else {
      return false;
    }
    return true;
  }

  /// The end of a part whose length is said at a place; `end` where it is none.
  std::size_t Add(Kind kind, std::size_t from, std::size_t end, std::size_t lengthAt,
                  std::size_t lengthBytes, std::size_t counted, std::size_t more = 0) {
    const std::size_t said = counted + Load(data_, lengthAt, lengthBytes) + more;
    const std::size_t to = said > lengthAt && said < end ? said : end;
    parts.push_back({kind, from, to, lengthAt, lengthBytes, counted});
    return to;
  }

  void Boxes(std::size_t at, std::size_t end) {
    while (at + 8 <= end) {
      const std::size_t to = Add(Kind::kBox, at, end, at, 4, at);
      const bool isSuper = Has(data_, at + 4, "vrmh") || Has(data_, at + 4, "jp2h") ||
                           Has(data_, at + 4, "res ") || Has(data_, at + 4, "ablh");
      if (isSuper) Boxes(at + 8, to);
      if (Has(data_, at + 4, "vrmc") || Has(data_, at + 4, "jp2c")) CodeStream(at + 8, to);
      at = to;
    }
  }

  /// The place of the segment with a marker, or the end.
  std::size_t Segments(std::size_t at, std::size_t end, std::uint8_t lead, std::uint8_t last) {
    while (at + 4 <= end && data_[at] == lead && data_[at + 1] != last) {
      at = Add(Kind::kSegment, at, end, at + 2, 2, at + 2);
    }
    return at;
  }

  void CodeStream(std::size_t at, std::size_t end) {
    const std::uint8_t lead = data_[at];
    at = Segments(at + 2, end, lead, 0x90);
    while (at + 14 <= end && data_[at] == lead && data_[at + 1] == 0x90) {
      const std::size_t to = Add(Kind::kTilePart, at, end, at + 6, 4, at);
      Packets(Segments(at + 12, to, lead, 0x93) + 2, to);
      at = to;
    }
  }

  void Packets(std::size_t at, std::size_t end) {
    while (at + 4 <= end) {
      const std::size_t to = Add(Kind::kPacket, at, end, at, 4, at + 4);
      std::size_t band = at + 4;
      // Three counted bands fill a packet above the lowest resolution.
      for (int i = 0; i < 3 && band + 4 <= to; ++i) band += 4 + Load(data_, band, 4);
      const bool areBands = band == to && to > at + 12;
      for (band = at + 4; areBands && band < to;) {
        band = Add(Kind::kBand, band, to, band, 4, band + 4);
      }
      at = to;
    }
  }

  void Chunks(std::size_t at) {
    isPng = true;
    while (at + 12 <= data_.size()) {
      at = Add(Kind::kChunk, at, data_.size(), at, 4, at + 8, 4);
    }
  }

  const Bytes& data_;
};

/// Replaces bytes, and in most cases the lengths of all parts around them.
void Splice(Bytes& data, const std::vector<Part>& parts, std::size_t at, std::size_t removed,
            const Bytes& added, bool mendLengths) {
  for (const Part& part : parts) {
    const bool isAround = part.from < at && at + removed <= part.to && part.to != data.size();
    if (!mendLengths || !isAround || part.lengthAt + part.lengthBytes > at) continue;
    const std::size_t said = Load(data, part.lengthAt, part.lengthBytes);
    Store(data, part.lengthAt, part.lengthBytes, said + added.size() - removed);
  }
  const auto place = data.begin() + static_cast<std::ptrdiff_t>(at);
  data.insert(data.erase(place, place + static_cast<std::ptrdiff_t>(removed)), added.begin(),
              added.end());
}

std::uint32_t Crc(const std::uint8_t* bytes, std::size_t n) {
  std::uint32_t crc = ~0U;
  for (std::size_t i = 0; i < n; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320U : 0);
  }
  return ~crc;
}

/// Readers of PNG files stop at a wrong check sum, behind which nothing would be tried.
void MendCheckSums(Bytes& data) {
  const Walk walk(data);
  for (const Part& part : walk.parts) {
    if (!walk.isPng || part.to < part.from + 12) continue;
    Store(data, part.to - 4, 4, Crc(&data[part.from + 4], part.to - part.from - 8));
  }
}

class Change {
 public:
  Change(Bytes& data, unsigned seed, const Bytes& other)
      : data_(data), parts_(Walk(data).parts), other_(other), random_(seed) {}

  bool Make() {
    if (parts_.empty()) return false;
    const Part& part = parts_[Below(parts_.size())];
    const std::size_t length = part.to - part.from;
    const bool mend = Below(4) != 0;
    switch (Below(8)) {
      case 0:
        Splice(data_, parts_, part.from, length, {}, mend);
        break;
      case 1:
        Splice(data_, parts_, Alike(part).from, 0, Copy(data_, part), mend);
        break;
      case 2: {
        const Part& with = Alike(part);
        const auto& [a, b] = part.from < with.from ? std::pair(part, with) : std::pair(with, part);
        if (a.to > b.from) return false;
        const Bytes first = Copy(data_, a), second = Copy(data_, b);
        Splice(data_, parts_, b.from, b.to - b.from, first, mend);
        Splice(data_, parts_, a.from, a.to - a.from, second, mend);
        break;
      }
      case 3:
        Store(data_, part.lengthAt, part.lengthBytes,
              Value(Load(data_, part.lengthAt, part.lengthBytes)));
        break;
      case 4: {
        // Fields stand at the beginning; in a band these are the plane counts.
        const std::size_t head = part.lengthAt + part.lengthBytes;
        const std::size_t n = part.kind == Kind::kBand || part.kind == Kind::kPacket ? 2 : 40;
        const std::size_t at = head + Below(n), width = std::size_t{1} << Below(3);
        Store(data_, at, width, Value(Load(data_, at, width)));
        break;
      }
      case 5:
        for (std::size_t n = 1 + Below(4); n > 0 && length > 0; --n) {
          data_[part.from + Below(length)] ^= static_cast<std::uint8_t>(1U << Below(8));
        }
        break;
      case 6:
        Splice(data_, parts_, part.from + Below(length), 0, Bytes(1 + Below(3)), mend);
        break;
      default: {
        const std::vector<Part> theirs = Walk(other_).parts;
        if (theirs.empty()) return false;
        const Bytes taken = Copy(other_, theirs[Below(theirs.size())]);
        Splice(data_, parts_, part.from, Below(2) != 0 ? length : 0, taken, mend);
      }
    }
    MendCheckSums(data_);
    return true;
  }

 private:
  std::size_t Below(std::size_t n) { return n == 0 ? 0 : random_() % n; }

  const Part& Alike(const Part& part) {
    std::vector<const Part*> alike;
    for (const Part& other : parts_) {
      if (other.kind == part.kind) alike.push_back(&other);
    }
    return *alike[Below(alike.size())];
  }

  std::size_t Value(std::size_t present) {
    constexpr std::size_t kEnds[] = {0, 1, 2, 8, 38, 255, 256, 0x7FFF, 0xFFFF, 0x7FFFFFFF};
    switch (Below(4)) {
      case 0:
        return kEnds[Below(std::size(kEnds))];
      case 1:
        return ~kEnds[Below(std::size(kEnds))];
      default:
        return present + Below(33) - 16;
    }
  }

  static Bytes Copy(const Bytes& from, const Part& part) {
    return Bytes(from.begin() + static_cast<std::ptrdiff_t>(part.from),
                 from.begin() + static_cast<std::ptrdiff_t>(part.to));
  }

  Bytes& data_;
  const std::vector<Part> parts_;
  const Bytes& other_;
  std::mt19937 random_;
};

/// The changed input in place of the data; 0 where there is nothing to change.
std::size_t Replace(std::uint8_t* data, std::size_t most, Bytes& bytes, unsigned seed,
                    const Bytes& other) {
  if (!Change(bytes, seed, other).Make() || bytes.empty()) return 0;
  const std::size_t size = std::min(most, bytes.size());
  std::copy_n(bytes.begin(), size, data);
  return size;
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned seed) {
  Bytes bytes(data, data + size);
  const Bytes itself = bytes;
  const std::size_t changed = seed % 2 == 0 ? 0 : Replace(data, most, bytes, seed / 2, itself);
  return changed != 0 ? changed : LLVMFuzzerMutate(data, size, most);
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data1, std::size_t size1,
                                                 const std::uint8_t* data2, std::size_t size2,
                                                 std::uint8_t* out, std::size_t most,
                                                 unsigned seed) {
  Bytes bytes(data1, data1 + size1);
  const Bytes other(data2, data2 + size2);
  return Replace(out, most, bytes, seed, other);
}
