// Directories of fields: a count, entries of tag, type, count and value or its position, and the
// position of the next directory. In plain TIFF counts and positions have four bytes, in BigTIFF
// eight.
#include "Exif.hpp"

#include <algorithm>
#include <bit>

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;

constexpr std::uint16_t kOrientation = 274, kPhotoIfd = 34665, kGpsIfd = 34853, kInteropIfd = 40965,
                        kMakerNote = 37500, kIptc = 33723, kBlocks = 34377;
constexpr std::uint16_t kShort = 3, kLong = 4, kIfd8 = 18;
constexpr std::uint64_t kMostEntries = 4096;
constexpr std::uint64_t kMostFieldBytes = 1 << 20;    // of a field that is taken along
constexpr std::uint64_t kMostBytes = 8 << 20;         // of all fields together
constexpr std::uint64_t kMostKeptPosition = 1 << 18;  // of a maker note that stays in its place
constexpr unsigned kTypeBytes[] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8, 4, 0, 0, 8, 8, 8};

/// Fields of a picture's directory that say how its samples are stored, or that images hold in
/// another way: strips and tiles, colour, resolution, profile, XMP, IPTC, further directories.
constexpr std::uint16_t kNotTaken[] = {
    254, 255, 256, 257, 258, 259, 262,   263,   264,   265,   266,   273,   277,  278, 279,
    280, 281, 282, 283, 284, 288, 289,   290,   291,   292,   293,   296,   297,  301, 317,
    318, 319, 320, 321, 322, 323, 324,   325,   326,   327,   328,   330,   332,  334, 338,
    339, 340, 341, 342, 347, 512, 513,   514,   515,   517,   518,   519,   520,  521, 529,
    530, 531, 532, 700, 333, 336, 337,   343,   344,   345,   346,   400,   401,  402, 403,
    404, 405, 433, 434, 435, 559, 33723, 34377, 34675, 37724, 34665, 34853, 40965};

struct Form {
  bool bigEndian = false, isBig = false;
  unsigned CountBytes() const { return isBig ? 8 : 2; }
  unsigned WordBytes() const { return isBig ? 8 : 4; }
  unsigned EntryBytes() const { return isBig ? 20 : 12; }
};

std::uint64_t Get(const std::uint8_t* from, unsigned numBytes, bool bigEndian) {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < numBytes; ++i)
    value = value << 8 | from[bigEndian ? i : numBytes - 1 - i];
  return value;
}

void Put(std::uint8_t* to, std::uint64_t value, unsigned numBytes, bool bigEndian) {
  for (unsigned i = 0; i < numBytes; ++i) {
    to[bigEndian ? numBytes - 1 - i : i] = static_cast<std::uint8_t>(value >> 8 * i);
  }
}

const ExifField* Find(const std::vector<ExifField>& fields, std::uint16_t tag) {
  const auto found = std::ranges::find(fields, tag, &ExifField::tag);
  return found == fields.end() ? nullptr : &*found;
}

// ---- Reading ----

class Reader {
 public:
  Reader(const ReadBytes& read, ExifTree& tree) : read_(read), tree_(tree) {}

  /// The position of the first directory; 0 when these are no such data.
  std::uint64_t Begin() {
    std::uint8_t head[16] = {};
    if (read_(0, head) < 8) return 0;
    form_.bigEndian = head[0] == 'M';
    tree_.bigEndian = form_.bigEndian;
    if (head[0] != head[1] || (head[0] != 'M' && head[0] != 'I')) return 0;
    const std::uint64_t version = Get(head + 2, 2, form_.bigEndian);
    form_.isBig = version == 43;
    if (version != 42 && !form_.isBig) return 0;
    return Get(head + (form_.isBig ? 8 : 4), form_.WordBytes(), form_.bigEndian);
  }

  /// The fields of a directory. Positions of directories below it go to `below`, as fields do.
  std::vector<ExifField> Directory(std::uint64_t at, bool isPicture,
                                   std::vector<ExifField>* below = nullptr) {
    std::vector<ExifField> fields;
    std::uint8_t word[8];
    if (at == 0 || read_(at, std::span(word).first(form_.CountBytes())) < form_.CountBytes()) {
      return fields;
    }
    const std::uint64_t count =
        std::min(Get(word, form_.CountBytes(), form_.bigEndian), kMostEntries);
    Bytes entries(static_cast<std::size_t>(count * form_.EntryBytes()));
    entries.resize(read_(at + form_.CountBytes(), entries));
    for (std::size_t i = 0; i + form_.EntryBytes() <= entries.size(); i += form_.EntryBytes()) {
      ExifField field = Entry(&entries[i]);
      const bool isPointer =
          field.tag == kPhotoIfd || field.tag == kGpsIfd || field.tag == kInteropIfd;
      if (isPointer && below != nullptr && Load(field, &entries[i])) below->push_back(field);
      const bool isTaken = !isPointer && (!isPicture || std::ranges::find(kNotTaken, field.tag) ==
                                                            std::end(kNotTaken));
      if (isPicture && field.tag == kIptc && Load(field, &entries[i])) tree_.iptc = field.data;
      if (isPicture && field.tag == kBlocks && Load(field, &entries[i])) tree_.blocks = field.data;
      if (isTaken && Load(field, &entries[i])) fields.push_back(std::move(field));
    }
    return fields;
  }

  std::uint64_t PointerOf(const std::vector<ExifField>& fields, std::uint16_t tag) const {
    const ExifField* field = Find(fields, tag);
    if (field == nullptr || field->data.size() < 4) return 0;
    return Get(field->data.data(), ExifValueBytes(field->type), form_.bigEndian);
  }

 private:
  ExifField Entry(const std::uint8_t* entry) const {
    ExifField field;
    field.tag = static_cast<std::uint16_t>(Get(entry, 2, form_.bigEndian));
    field.type = static_cast<std::uint16_t>(Get(entry + 2, 2, form_.bigEndian));
    field.count = Get(entry + 4, form_.WordBytes(), form_.bigEndian);
    return field;
  }

  bool Load(ExifField& field, const std::uint8_t* entry) {
    const unsigned valueBytes = ExifValueBytes(field.type);
    if (valueBytes == 0 || field.count == 0) return false;
    if (field.count > std::min(kMostFieldBytes, kMostBytes - numBytes_) / valueBytes) {
      tree_.leftOut.push_back(field.tag);
      return false;
    }
    const std::uint8_t* value = entry + 4 + form_.WordBytes();
    field.data.resize(static_cast<std::size_t>(field.count * valueBytes));
    numBytes_ += field.data.size();
    if (field.data.size() <= form_.WordBytes()) {
      std::copy_n(value, field.data.size(), field.data.begin());
      return true;
    }
    field.position = Get(value, form_.WordBytes(), form_.bigEndian);
    return read_(field.position, field.data) == field.data.size();
  }

  const ReadBytes& read_;
  ExifTree& tree_;
  Form form_;
  std::uint64_t numBytes_ = 0;
};

// ---- Writing ----

class Writer {
 public:
  Writer(const ExifTree& tree, std::uint64_t start, bool isBig)
      : form_{tree.bigEndian, isBig}, start_(start) {
    const ExifField* note = Find(tree.photo, kMakerNote);
    if (note == nullptr || note->position < start || note->position > kMostKeptPosition) return;
    noteFrom_ = note->position;
    noteTo_ = note->position + note->data.size();
  }

  /// Lays out a directory and returns its position; 0 for none.
  std::uint64_t Directory(std::vector<ExifField> fields,
                          std::initializer_list<std::pair<std::uint16_t, std::uint64_t>> below) {
    std::erase_if(fields, [&](const ExifField& field) { return field.type > 13 && !form_.isBig; });
    for (const auto& [tag, position] : below) {
      if (position != 0) fields.push_back(Pointer(tag, position));
    }
    if (fields.empty()) return 0;
    std::ranges::stable_sort(fields, {}, &ExifField::tag);
    const std::uint64_t size =
        form_.CountBytes() + fields.size() * form_.EntryBytes() + form_.WordBytes();
    const std::uint64_t at = Place(size);
    Put(At(at), fields.size(), form_.CountBytes(), form_.bigEndian);
    std::uint64_t entry = at + form_.CountBytes();
    for (const ExifField& field : fields) {
      Entry(entry, field);
      entry += form_.EntryBytes();
    }
    return at;
  }

  Bytes bytes;

 private:
  std::uint8_t* At(std::uint64_t position) { return &bytes[position - start_]; }

  ExifField Pointer(std::uint16_t tag, std::uint64_t position) const {
    ExifField field{tag, form_.isBig ? kIfd8 : kLong, 1, Bytes(form_.WordBytes())};
    Put(field.data.data(), position, form_.WordBytes(), form_.bigEndian);
    return field;
  }

  void Entry(std::uint64_t at, const ExifField& field) {
    std::uint64_t to = at + 4 + form_.WordBytes();
    if (field.data.size() > form_.WordBytes()) {
      const bool stays = field.tag == kMakerNote && noteTo_ - noteFrom_ == field.data.size();
      const std::uint64_t position = stays ? noteFrom_ : Place(field.data.size());
      if (stays) Reach(noteTo_);
      Put(At(to), position, form_.WordBytes(), form_.bigEndian);
      to = position;
    }
    Put(At(at), field.tag, 2, form_.bigEndian);
    Put(At(at + 2), field.type, 2, form_.bigEndian);
    Put(At(at + 4), field.count, form_.WordBytes(), form_.bigEndian);
    std::ranges::copy(field.data, At(to));
  }

  /// Room behind everything else, around the maker note, at an even position.
  std::uint64_t Place(std::uint64_t size) {
    next_ = std::max(next_, start_);
    next_ += next_ % 2;
    if (next_ < noteTo_ && next_ + size > noteFrom_) next_ = noteTo_ + noteTo_ % 2;
    const std::uint64_t at = next_;
    next_ += size;
    Reach(next_);
    return at;
  }

  void Reach(std::uint64_t end) {
    if (bytes.size() < end - start_) bytes.resize(static_cast<std::size_t>(end - start_));
  }

  Form form_;
  std::uint64_t start_, next_ = 0;
  std::uint64_t noteFrom_ = 0, noteTo_ = 0;  ///< both 0 when the note goes where there is room
};

/// Calls visit with every entry of a directory of EXIF data, each of twelve bytes.
template <class Bytes_, class Visit>
void EachEntry(Bytes_& exif, std::uint64_t at, bool bigEndian, Visit&& visit) {
  if (at == 0 || at + 2 > exif.size()) return;
  const std::uint64_t count = Get(&exif[at], 2, bigEndian);
  for (std::uint64_t i = 0; i < count && at + 2 + 12 * (i + 1) <= exif.size(); ++i) {
    visit(&exif[at + 2 + 12 * i]);
  }
}

/// The first directory of EXIF data; 0 when they are none.
std::uint64_t FirstDirectory(ByteView exif, bool& bigEndian) {
  if (exif.size() < 8 || exif[0] != exif[1] || (exif[0] != 'I' && exif[0] != 'M')) return 0;
  bigEndian = exif[0] == 'M';
  return Get(&exif[4], 4, bigEndian);
}

void Wipe(Bytes& exif, std::uint64_t from, std::uint64_t count) {
  for (std::uint64_t i = from; i < exif.size() && i - from < count; ++i) exif[i] = 0;
}

}  // namespace

bool ExifTree::Has(std::uint16_t tag) const {
  return Find(image, tag) != nullptr;
}

bool ExifTree::SaysNothing() const {
  if (!photo.empty() || !gps.empty() || image.size() > 1) return false;
  return image.empty() || (image[0].tag == kOrientation && image[0].data.size() == 2 &&
                           Get(image[0].data.data(), 2, bigEndian) == 1);
}

unsigned ExifValueBytes(std::uint16_t type) {
  return type < std::size(kTypeBytes) ? kTypeBytes[type] : 0;
}

ExifTree ReadExif(const ReadBytes& read, std::uint64_t directory) {
  ExifTree tree;
  Reader reader(read, tree);
  const std::uint64_t first = reader.Begin();
  if (first == 0) return tree;
  std::vector<ExifField> below;
  tree.image = reader.Directory(directory != 0 ? directory : first, true, &below);
  tree.gps = reader.Directory(reader.PointerOf(below, kGpsIfd), false);
  tree.photo = reader.Directory(reader.PointerOf(below, kPhotoIfd), false, &below);
  tree.interop = reader.Directory(reader.PointerOf(below, kInteropIfd), false);
  return tree;
}

ExifTree ReadExif(ByteView exif) {
  return ReadExif([exif](std::uint64_t at, std::span<std::uint8_t> to) -> std::size_t {
    if (at >= exif.size()) return 0;
    const ByteView from = exif.subspan(static_cast<std::size_t>(at));
    const std::size_t count = std::min(from.size(), to.size());
    std::copy_n(from.begin(), count, to.begin());
    return count;
  });
}

Bytes WriteExif(const ExifTree& tree) {
  Writer writer(tree, 8, false);
  const std::uint64_t interop = writer.Directory(tree.interop, {});
  const std::uint64_t gps = writer.Directory(tree.gps, {});
  const std::uint64_t photo = writer.Directory(tree.photo, {{kInteropIfd, interop}});
  const std::uint64_t image = writer.Directory(tree.image, {{kPhotoIfd, photo}, {kGpsIfd, gps}});
  Bytes exif(8);
  exif[0] = exif[1] = tree.bigEndian ? 'M' : 'I';
  Put(&exif[2], 42, 2, tree.bigEndian);
  Put(&exif[4], image, 4, tree.bigEndian);
  exif.insert(exif.end(), writer.bytes.begin(), writer.bytes.end());
  return exif;
}

ExifPart WriteExifPart(const ExifTree& tree, std::uint64_t start, bool isBigTiff) {
  Writer writer(tree, start, isBigTiff);
  ExifPart part;
  const std::uint64_t interop = writer.Directory(tree.interop, {});
  part.gps = writer.Directory(tree.gps, {});
  part.photo = writer.Directory(tree.photo, {{kInteropIfd, interop}});
  part.bytes = std::move(writer.bytes);
  return part;
}

Bytes NativeValues(const ExifField& field, bool bigEndian, unsigned valueBytes) {
  Bytes values = field.data;
  if (bigEndian == (std::endian::native == std::endian::big)) return values;
  for (std::size_t i = 0; i + valueBytes <= values.size(); i += valueBytes) {
    std::reverse(&values[i], &values[i] + valueBytes);
  }
  return values;
}

void SetExifOrientation(Bytes& exif, unsigned orientation) {
  bool bigEndian = false, found = false;
  const std::uint64_t first = FirstDirectory(exif, bigEndian);
  EachEntry(exif, first, bigEndian, [&](std::uint8_t* entry) {
    if (Get(entry, 2, bigEndian) != kOrientation) return;
    Put(entry + 8, orientation, 2, bigEndian);
    found = true;
  });
  if (found || orientation == 1) return;
  ExifTree tree = ReadExif(ByteView(exif));
  ExifField field{kOrientation, kShort, 1, Bytes(2)};
  Put(field.data.data(), orientation, 2, tree.bigEndian);
  tree.image.push_back(std::move(field));
  exif = WriteExif(tree);
}

void RemoveExifGps(Bytes& exif) {
  bool bigEndian = false;
  const std::uint64_t first = FirstDirectory(exif, bigEndian);
  std::uint64_t gps = 0;
  std::uint8_t* gpsEntry = nullptr;
  std::uint64_t numEntries = 0;
  EachEntry(exif, first, bigEndian, [&](std::uint8_t* entry) {
    ++numEntries;
    if (Get(entry, 2, bigEndian) != kGpsIfd) return;
    gps = Get(entry + 8, 4, bigEndian);
    gpsEntry = entry;
  });
  if (gpsEntry == nullptr) return;
  // The entries and the next directory's position move up over the one that goes.
  const std::uint64_t end = std::min<std::uint64_t>(first + 2 + 12 * numEntries + 4, exif.size());
  std::copy(gpsEntry + 12, exif.data() + end, gpsEntry);
  Put(&exif[first], numEntries - 1, 2, bigEndian);
  std::uint64_t numGps = 0;
  EachEntry(exif, gps, bigEndian, [&](const std::uint8_t* entry) {
    const std::uint64_t bytes =
        Get(entry + 4, 4, bigEndian) *
        ExifValueBytes(static_cast<std::uint16_t>(Get(entry + 2, 2, bigEndian)));
    if (bytes > 4) Wipe(exif, Get(entry + 8, 4, bigEndian), bytes);
    ++numGps;
  });
  Wipe(exif, gps, 2 + 12 * numGps);
}

}  // namespace kel::tool
