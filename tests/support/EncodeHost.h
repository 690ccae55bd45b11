// An encoding host for tests, over the public interface alone: makes images, feeds their tiles
// through the fetch callbacks in every layout, can fail the n-th fetch, and keeps what the library
// reports of its progress.
#ifndef TESTS_SUPPORT_ENCODE_HOST_H
#define TESTS_SUPPORT_ENCODE_HOST_H

#include <cstdint>
#include <string>
#include <vector>

#include "DecodeHost.h"
#include "HostStream.h"
#include "kel/Kel.h"

namespace test {

/// An image in memory: the planes of its components, with origin 0.
struct Picture {
  KelLong width, height;
  std::vector<KelLong> depths, xRsiz, yRsiz;
  std::vector<Plane> planes;

  std::size_t Count() const { return depths.size(); }
};

/// What an image shows: shades with some texture, noise over the whole range, or only extremes.
enum class Content { kShades, kNoise, kExtremes };

/// An image of components of one depth without subsampling.
Picture MakePicture(KelLong width, KelLong height, std::size_t components, KelLong depth,
                    Content content = Content::kShades);
/// The same of given depths and subsampling factors (across and down alike).
Picture MakePicture(KelLong width, KelLong height, const std::vector<KelLong>& depths,
                    const std::vector<KelLong>& sampling, Content content = Content::kShades);

/// What tests choose most often among the options; the defaults are the option set's own.
struct Coding {
  KelLong irreversible = 1;
  float quality = 40;
  bool transform = false;
  KelLong levels = 5, layers = 1, order = KelRLCP;
  KelLong colors = -1;        ///< colour channels, or -1: as many as there are
  KelLong mask = -1;          ///< component that marks a region, or -1
  KelLong transparency = -1;  ///< component, or -1
  bool choose = false;        ///< indices are chosen
};

/// One encoder's host. The options are those of the image; tests change them before Encode.
class EncodeHost {
 public:
  EncodeHost(const Picture& source, KelLong tileWidth, KelLong tileHeight,
             const Coding& coding = {});
  explicit EncodeHost(const Picture& source, const Coding& coding = {})
      : EncodeHost(source, source.width, source.height, coding) {}
  ~EncodeHost();
  EncodeHost(const EncodeHost&) = delete;
  EncodeHost& operator=(const EncodeHost&) = delete;

  /// Initialises the encoder; the stream must outlive it.
  KelLong Init(HostStream& stream);
  /// Initialises, codes every tile into the stream, and tears down. Returns the first code that is
  /// not 0.
  KelLong EncodeTo(HostStream& stream);
  /// The same into a stream of its own; throws on a code, which fails the test. Returns the file.
  Bytes Encode(bool seekable = true);

  Picture image;
  KelEncOpt options;
  KelImage encoder;
  KelClientProcs procs;
  KelImageDataProcs dataProcs;
  KelUserActions actions;
  KelLong numInterleaved = 0;  ///< channels of the interleaved buffer; set before initialising
  int fetches = 0;             ///< so far
  int failFetch = 0;           ///< number of the fetch to fail (1 the first), or 0
  KelLong fetchError = 99;     ///< what a failing fetch reports; 0: no buffer and no error
  bool fetchErrorWithBuffer = false;
  std::uint8_t bufType = 0;  ///< what fetched identifiers hold
  std::string progress;      ///< B, done/total, E
  int abortAfter = -1;       ///< polls that ask for nothing before the one that aborts

 private:
  KelBufID_I* Fetch(const std::vector<std::size_t>& channels, KelLong tile, KelLong* error);
};

}  // namespace test

#endif
