// Reading the boxes of a file into the record of their findings.
#ifndef KEL_FILE_FORMAT_READ_H
#define KEL_FILE_FORMAT_READ_H

#include <cstdint>

#include "KelDecDataMgr.h"
#include "base/KelRaise.h"
#include "format/KelFileFormat.h"

namespace kel {

/// Bytes that the window of a stream must be able to hold for the box readers: the longest list of
/// depths, a byte for each of the components that 16 bits can count.
inline constexpr std::uint32_t kBoxWindowBytes = 65535;

/// Reads boxes in the layout of the data's flavour and leaves the reader on the first byte of the
/// code stream; info.codeStreamFound tells whether there was one. Where the data may not be walked,
/// or the code-stream box extends to their end, that box is the last one read. The result is what
/// the data were refused with, 21, 22, 25 or 26, or a clear record. Raises 8 in the name of the
/// layout's module.
[[nodiscard]] Failure ReadBoxes(KelFileInfo& info, KelDecDataMgr& data);

}  // namespace kel

#endif
