// Rows on their way from the decoder into files: scaled to another depth, written as bare planes.
#ifndef KEL_TOOLS_DECODED_ROWS_HPP
#define KEL_TOOLS_DECODED_ROWS_HPP

#include <kel/host/row_streams.hpp>

#include "RawPlanes.hpp"

namespace kel::tool {

/// Holds no more than the rows of one call.
class DecodedRows final : public host::RowSink {
 public:
  /// bits: the depth to scale to, unless 0; no palette's indices then. raw and next may be null,
  /// and outlive this.
  DecodedRows(unsigned bits, RawPlanes* raw, host::RowSink* next);
  void Begin(const host::Image& description) override;
  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override;
  void Finish() override;

 private:
  const unsigned bits_;
  RawPlanes* const raw_;
  host::RowSink* const next_;
  host::Image description_;
};

}  // namespace kel::tool

#endif
