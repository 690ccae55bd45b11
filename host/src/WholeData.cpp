// Reading to the end: into a block of the source's size where that is known, else into one that
// grows.
#include "WholeData.hpp"

#include <algorithm>

#include "kel/host/errors.hpp"

namespace kel::host {
namespace {

constexpr std::size_t kMostBytes = INT32_MAX;
constexpr std::size_t kFirstRead = 65536;

/// One byte more than the source says, which tells that there are no more.
std::size_t FirstSize(const Source& source) {
  const auto size = source.Size();
  if (!size) return kFirstRead;
  return static_cast<std::size_t>(std::min<std::uint64_t>(*size, kMostBytes)) + 1;
}

}  // namespace

ByteView AsOneBlock(ByteView all) {
  if (all.size() > kMostBytes) {
    throw Error(Failure::kInput,
                "is larger than 2 GiB, the most that can be read at once; a file can be larger");
  }
  return all;
}

WholeData::WholeData(Source& source) {
  if (const auto view = source.View()) {
    view_ = AsOneBlock(*view);
    return;
  }
  storage_ = SampleBuffer(FirstSize(source));
  std::size_t filled = 0;
  while (const std::size_t count =
             source.Read(std::span(storage_.Data(), storage_.Size()).subspan(filled))) {
    filled += count;
    if (filled < storage_.Size()) continue;
    AsOneBlock({storage_.Data(), filled});
    SampleBuffer larger(2 * filled);
    std::copy_n(storage_.Data(), filled, larger.Data());
    storage_ = std::move(larger);
  }
  view_ = {storage_.Data(), filled};
  AsOneBlock(view_);
}

}  // namespace kel::host
