// Samples as bare numbers: one file per component, and a JSON file that describes them.
#ifndef KEL_TOOLS_RAW_PLANES_HPP
#define KEL_TOOLS_RAW_PLANES_HPP

#include <kel/host/image.hpp>

#include <memory>
#include <string>
#include <vector>

#include "OutputFile.hpp"

namespace kel::tool {

/// Writes PREFIX.c0.raw, PREFIX.c1.raw, ...: row by row without padding, one byte per sample up
/// to 8 bits, two little-endian up to 16, else four; and PREFIX.json with width, height, depth and
/// signedness of each. All of them or none. Operations throw Error (kOutput).
class RawPlanes {
 public:
  explicit RawPlanes(std::string prefix, OnExisting onExisting = OnExisting::kReplace)
      : prefix_(std::move(prefix)), onExisting_(onExisting) {}
  /// Opens a file for each plane of the description.
  void Begin(const host::Image& description);
  /// Rows that follow those before, of every plane.
  void Append(const host::Image& rows);
  void Finish();

 private:
  friend void WriteRawPlanes(const host::Image& image, const std::string& prefix,
                             OnExisting onExisting);
  std::string NameOf(std::size_t plane) const;

  std::string prefix_;
  OnExisting onExisting_;
  host::Image description_;
  std::vector<std::unique_ptr<OutputFile>> files_;
};

/// An image in memory, one file after another.
void WriteRawPlanes(const host::Image& image, const std::string& prefix,
                    OnExisting onExisting = OnExisting::kReplace);

}  // namespace kel::tool

#endif
