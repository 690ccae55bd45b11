// Encodes pictures in many ways, decodes them and the files given in many ways, and prints a digest
// of each result: the same on every machine, from every compiler and kernel set, and on any number
// of threads that do it side by side.
//
//   kel_digest [--threads N] FILE...
//
// Uses no library beside Kel's objects, so that it runs where others are missing or are not
// compiled for a sanitizer that sees memory which was never written.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

#include "EncodeHost.h"

namespace {

using test::Bytes;
using test::Decoded;
using test::DecodeJob;

/// FNV-1a.
struct Digest {
  std::uint64_t value = 0xCBF29CE484222325;

  void Add(std::uint64_t number) {
    for (int i = 0; i < 8; ++i) value = (value ^ (number >> 8 * i & 255)) * 0x100000001B3;
  }
};

/// What is printed of one set; two runs must give the same.
using Digests = std::vector<std::uint64_t>;

struct Buffer : KelBufID_I {
  void* data;
};

KelMemFuncs PlainMemory() {
  KelMemFuncs funcs;
  funcs.AllocAlignedBuf = [](KelULong size, KelULong alignment) -> KelBufID_I* {
    auto* buffer = new Buffer;
    const std::size_t whole = (std::size_t{size} + alignment) / alignment * alignment;
    buffer->data = std::aligned_alloc(alignment, whole);
    return buffer;
  };
  funcs.AllocBuf = [](KelULong size) { return KelGetMemObj()->AllocAlignedBuf(size, 16); };
  funcs.LockBuf = [](KelBufID_I* buffer) { return static_cast<Buffer*>(buffer)->data; };
  funcs.UnlockBuf = [](KelBufID_I*) {};
  funcs.FreeBuf = [](KelBufID_I* buffer) {
    std::free(static_cast<Buffer*>(buffer)->data);
    delete static_cast<Buffer*>(buffer);
  };
  funcs.Malloc = [](KelULong size) { return std::malloc(size); };
  funcs.Free = [](void* block) { std::free(block); };
  funcs.AlignedMalloc = [](KelULong size, KelULong alignment) {
    return std::aligned_alloc(alignment, (std::size_t{size} + alignment) / alignment * alignment);
  };
  funcs.AlignedFree = funcs.Free;
  funcs.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  funcs.MemSet = [](void* to, KelLong value, KelULong n) { std::memset(to, value, n); };
  return funcs;
}

std::uint64_t DigestOf(const Decoded& decoded) {
  Digest digest;
  digest.Add(static_cast<std::uint64_t>(decoded.initCode));
  digest.Add(static_cast<std::uint64_t>(decoded.frameCode));
  for (const auto* const planes : {&decoded.planes, &decoded.hostPlanes}) {
    for (const test::Plane& plane : *planes) {
      digest.Add(static_cast<std::uint64_t>(plane.width));
      for (const std::int64_t sample : plane.samples)
        digest.Add(static_cast<std::uint64_t>(sample));
    }
  }
  return digest.value;
}

/// Decodes in every way that gives samples by paths of their own.
void AddDecoded(const Bytes& bytes, Digests& digests) {
  const DecodeJob jobs[] = {
      {},
      {.source = test::Source::kUnseekable, .outBits = 12},
      {.piece = bytes.size() / 3 + 1, .skipConversion = true},
      {.aspect = KelAspectHalf, .orientation = KelOrientation90, .outBits = 16},
      {.skipRecast = true},
      {.source = test::Source::kSeekable, .useHostBuffers = true, .outBits = 8}};
  for (const DecodeJob& job : jobs) digests.push_back(DigestOf(test::Decode(bytes, job)));
}

void AddEncoded(const test::Picture& picture, const test::Coding& coding, KelLong side,
                Digests& digests) {
  test::HostStream stream;
  test::EncodeHost host(picture, side, side, coding);
  const KelLong code = host.EncodeTo(stream);
  Digest digest;
  digest.Add(static_cast<std::uint64_t>(code));
  for (const std::uint8_t byte : stream.bytes) digest.Add(byte);
  digests.push_back(digest.value);
  AddDecoded(stream.bytes, digests);
}

Digests RunAll(const std::vector<Bytes>& files) {
  Digests digests;
  for (const KelLong depth : {1, 8, 12, 16, 24}) {
    for (const auto content : {test::Content::kShades, test::Content::kNoise}) {
      const test::Picture rgb = test::MakePicture(45, 39, 3, depth, content);
      const test::Picture grey = test::MakePicture(70, 33, 1, depth, content);
      AddEncoded(rgb, {.irreversible = 0, .transform = true, .levels = 3}, 32, digests);
      AddEncoded(rgb, {.quality = 70, .transform = true, .choose = true}, 64, digests);
      AddEncoded(grey, {.irreversible = 0, .levels = 2, .layers = 2, .order = KelCPRL}, 70,
                 digests);
      AddEncoded(grey, {.quality = 20, .order = KelCPRL}, 48, digests);
    }
  }
  for (const Bytes& file : files) AddDecoded(file, digests);
  return digests;
}

bool ReadFile(const char* name, Bytes& bytes) {
  std::FILE* const file = std::fopen(name, "rb");
  if (file == nullptr) return false;
  std::uint8_t piece[4096];
  for (std::size_t n; (n = std::fread(piece, 1, sizeof piece, file)) > 0;) {
    bytes.insert(bytes.end(), piece, piece + n);
  }
  std::fclose(file);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int first = 1;
  std::size_t numThreads = 1;
  if (argc > 2 && std::string_view(argv[1]) == "--threads") {
    numThreads = static_cast<std::size_t>(std::atoi(argv[2]));
    first = 3;
  }
  std::vector<Bytes> files(static_cast<std::size_t>(std::max(argc - first, 0)));
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (!ReadFile(argv[static_cast<std::size_t>(first) + i], files[i])) return 2;
  }
  KelMemFuncs memory = PlainMemory();
  KelLibInit(&memory);
  std::vector<Digests> results(numThreads);
  std::vector<std::thread> threads;
  for (Digests& result : results) threads.emplace_back([&] { result = RunAll(files); });
  for (std::thread& thread : threads) thread.join();
  KelLibShutDown();
  for (const std::uint64_t digest : results[0]) std::printf("%016" PRIx64 "\n", digest);
  for (const Digests& result : results) {
    if (result != results[0]) return 1;
  }
  return 0;
}
