// Everything that a source has left, in one piece: where it stands already, or read into large
// blocks, which cost little to obtain.
#ifndef KEL_HOST_WHOLE_DATA_HPP
#define KEL_HOST_WHOLE_DATA_HPP

#include "kel/host/image.hpp"
#include "kel/host/streams.hpp"

namespace kel::host {

class WholeData {
 public:
  WholeData() = default;
  /// Throws Error (kInput) as the source's Read, and for more than can be decoded as one block.
  explicit WholeData(Source& source);
  WholeData(WholeData&&) noexcept = default;
  WholeData& operator=(WholeData&&) noexcept = default;
  /// Stand as long as this and the source.
  ByteView View() const { return view_; }

 private:
  SampleBuffer storage_;
  ByteView view_;
};

/// The bytes as they are. Throws Error (kInput) for more than can be decoded as one block.
ByteView AsOneBlock(ByteView all);

}  // namespace kel::host

#endif
