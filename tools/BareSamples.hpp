// Samples with little or nothing around them: raw files whose form the user tells, NPY and PGX.
// Pixel after pixel, row after row; one, two or four bytes each.
#ifndef KEL_TOOLS_BARE_SAMPLES_HPP
#define KEL_TOOLS_BARE_SAMPLES_HPP

#include <kel/host/row_streams.hpp>

#include <memory>
#include <string>

#include "ImageFile.hpp"

namespace kel::tool {

/// What "640x480x3:u16le" says; nothing when the text is no such form. Samples are u1 to u28, with
/// the order of bytes, le or be, where they take more than one.
std::optional<BareForm> ParseBareForm(const std::string& text);

/// Rows of samples that begin where the source stands. One channel is grey, two grey and opacity,
/// three RGB, four RGB and opacity; of more the first is grey, and the others have no meaning.
std::unique_ptr<host::RowSource> OpenBare(host::BufferedSource& source, const BareForm& form);

}  // namespace kel::tool

#endif
