// The library's option set for an image and parameters, with all the records it points to.
#ifndef KEL_HOST_ENCODER_OPTIONS_HPP
#define KEL_HOST_ENCODER_OPTIONS_HPP

#include <vector>

#include "Library.hpp"
#include "kel/host/encode.hpp"

namespace kel::host {

class EncoderOptions {
 public:
  /// The image outlives the options.
  EncoderOptions(const Image& image, const EncodeParams& params, double quality);
  EncoderOptions(const EncoderOptions&) = delete;
  EncoderOptions& operator=(const EncoderOptions&) = delete;

  KelEncOpt* Get() { return &options_; }

 private:
  void SetGeometry(const Image& image, const EncodeParams& params);
  void SetCoding(const Image& image, const EncodeParams& params, double quality);
  void SetChannels(const Image& image);
  void SetColour(const Image& image);
  void SetPalette(const Palette& palette);
  void SetPayloads(const Image& image);

  /// The option set, torn down also when the rest cannot be built.
  struct Owner : KelEncOpt {
    Owner() : KelEncOpt() {}
    ~Owner() { Die(); }
  };

  Owner options_;
  KelComment comment_{};
  __tagICCProfile profile_{};
  KelColorSpec colour_{};
  __tagColorSpecList colours_{};
  std::vector<__tagKelXML> xml_;
  std::vector<__tagKelUUID> uuids_;
  __tagKelPalette palette_{};
  Bytes paletteDepths_;
  std::vector<Bytes> paletteColumns_;
  std::vector<std::uint8_t*> paletteAddresses_;
};

}  // namespace kel::host

#endif
