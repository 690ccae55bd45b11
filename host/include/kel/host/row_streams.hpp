// Pictures as rows that come one after another, so that a program need not hold them whole.
//
// A row stands pixel after pixel: for every plane of the description, in its order, one sample in
// one, two or four bytes (Plane::BytesPerSample of any plane), in the byte order of the machine.
// So all planes have the size of the grid and one depth. A palette's indices are one plane.
#ifndef KEL_HOST_ROW_STREAMS_HPP
#define KEL_HOST_ROW_STREAMS_HPP

#include "language.hpp"

#include "image.hpp"

namespace kel::host {

/// Whether an image can be described to a source or sink of rows: it has planes, and all are of
/// one depth and of the size of the grid.
bool HasPlainRows(const Image& description);
/// Bytes of one row of a picture.
std::size_t RowBytes(const Image& description);

/// Delivers the rows of a picture from top to bottom.
class RowSource {
 public:
  virtual ~RowSource() = default;
  /// The image but for its samples, which its planes do not hold.
  const Image& Description() const { return description_; }
  /// For a program that adds what the file did not bring: comment, resolution, payloads.
  Image& Description() { return description_; }
  /// Fills the next `count` rows, no more than are left, the first at `to`, each strideBytes
  /// behind the one before. Throws Error (kInput).
  virtual void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) = 0;
  /// Whether the source keeps all samples in memory, because its form does not give them in order.
  virtual bool HoldsPicture() const { return false; }
  /// Whether further pictures follow in the same bytes; asked when all rows have been read.
  virtual bool HasMore() { return false; }

 protected:
  Image description_;
};

/// Takes the rows of a picture from top to bottom.
class RowSink {
 public:
  virtual ~RowSink() = default;
  /// Comes first, once. The planes of the description need not hold samples. Throws Error
  /// (kOutput) when the picture cannot be held.
  virtual void Begin(const Image& description) = 0;
  /// The next `count` rows, laid out as a source's. Throws Error (kOutput).
  virtual void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) = 0;
  /// Comes last, after all rows. Throws Error (kOutput).
  virtual void Finish() = 0;
};

/// The rows of an image that is in memory. Throws Error (kParameter) unless HasPlainRows.
class ImageRowSource : public RowSource {
 public:
  /// image outlives the source.
  explicit ImageRowSource(const Image& image);
  explicit ImageRowSource(Image&& image);
  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override;
  bool HoldsPicture() const override { return true; }

 private:
  Image owned_;
  const Image& image_;
  std::uint32_t nextRow_ = 0;
};

/// Gathers rows in an image, which has no samples before the first row: what is only announced
/// takes no memory.
class ImageRowSink : public RowSink {
 public:
  void Begin(const Image& description) override;
  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override;
  void Finish() override {}
  Image image;  ///< whole after Finish

 private:
  std::uint32_t nextRow_ = 0;
};

/// Moves all rows, some at a time, from the Begin to the Finish of the sink.
void CopyRows(RowSource& source, RowSink& sink);

/// All that a source delivers, as an image.
Image ReadImage(RowSource& source);

}  // namespace kel::host

#endif
