#include "HostStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace test {

HostStream::HostStream(std::vector<std::uint8_t> content, bool seekable)
    : bytes(std::move(content)) {
  procs.clientData = this;
  procs.Read = [](void* client, void* destination, KelLong count) -> KelLong {
    auto& self = *static_cast<HostStream*>(client);
    ++self.reads;
    if (self.readResult != INT32_MIN) return self.readResult;
    const std::size_t end = std::min(self.bytes.size(), self.visible);
    const std::size_t left = end > self.position ? end - self.position : 0;
    const auto most = static_cast<std::size_t>(std::min(count, self.mostPerRead));
    const std::size_t taken = std::min(left, most);
    if (taken != 0) std::memcpy(destination, self.bytes.data() + self.position, taken);
    self.position += taken;
    self.bytesRead += taken;
    return static_cast<KelLong>(taken);
  };
  procs.Write = [](void* client, const void* source, KelLong count) -> KelLong {
    auto& self = *static_cast<HostStream*>(client);
    if (self.writes++ == self.writesToFail) return self.failedResult;
    if (self.writeResult != INT32_MIN) return self.writeResult;
    const std::size_t end = self.position + static_cast<std::size_t>(count);
    if (self.bytes.size() < end) self.bytes.resize(end);
    if (count != 0) std::memcpy(self.bytes.data() + self.position, source, end - self.position);
    self.position = end;
    return count;
  };
  procs.Seek = [](void* client, KelLong origin, KelLong offset) -> KelLong {
    auto& self = *static_cast<HostStream*>(client);
    ++self.seeks;
    if (self.refuseSeek || origin != 1 || offset < 0) return -1;
    self.position = static_cast<std::size_t>(offset);
    return offset;
  };
  stream.InitKelCodeStm(static_cast<KelLong>(bytes.size()), false, seekable, false, false, &procs);
}

}  // namespace test
