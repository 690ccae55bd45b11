// Samples as bare numbers: one file per component, and a JSON file that describes them.
#ifndef KEL_TOOLS_RAW_PLANES_HPP
#define KEL_TOOLS_RAW_PLANES_HPP

#include <kel/host/image.hpp>

#include <string>

namespace kel::tool {

/// Writes PREFIX.c0.raw, PREFIX.c1.raw, ...: row by row without padding, one byte per sample up
/// to 8 bits, two little-endian up to 16, else four; and PREFIX.json with width, height, depth and
/// signedness of each. All of them or none. Throws Error (kOutput).
void WriteRawPlanes(const host::Image& image, const std::string& prefix);

}  // namespace kel::tool

#endif
