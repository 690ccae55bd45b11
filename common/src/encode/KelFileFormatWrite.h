// Writing the boxes of a file up to the code stream, in the layout whose signature is 'weab'.
#ifndef KEL_FILE_FORMAT_WRITE_H
#define KEL_FILE_FORMAT_WRITE_H

#include <cstdint>

#include "kel/KelOptions.h"
#include "kel/KelStream.h"

namespace kel {

/// Whether the file records of options can be written: arrays present where counts say so, a
/// palette of layout 0 or 1 with at most 65535 entries and 255 columns, and no more bytes in all
/// than a stream can hold.
bool FileRecordsAreWritable(const KelEncOpt& options);

/// Writes the boxes, from the signature to the header of the code-stream box, at the start of a
/// seekable stream, else at its current position. *length receives their size. False, with nothing
/// written, when the records cannot be written. The options must have passed the encoder's other
/// checks. Raises 8.
[[nodiscard]] bool WriteBoxes(const KelEncOpt& options, KelCodeStm& stream, std::uint32_t* length);

}  // namespace kel

#endif
