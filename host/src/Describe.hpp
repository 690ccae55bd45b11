// What a decoder's image object and the index of its data tell about the image.
#ifndef KEL_HOST_DESCRIBE_HPP
#define KEL_HOST_DESCRIBE_HPP

#include "Library.hpp"
#include "kel/host/image.hpp"

namespace kel::host {

/// Role and colour number of a component.
struct ComponentRole {
  ChannelRole role = ChannelRole::kOther;
  unsigned colour = 0;
};
std::vector<ComponentRole> ComponentRoles(KelImage& image);

/// The palette, one column per channel; none when there is no palette. Throws Error (kInput) for
/// one that the kit cannot represent.
std::optional<Palette> DescribePalette(const KelImage& image, const KelIndexFacts& facts);

/// Everything about the image but its planes.
Image DescribeImage(const Decoder& decoder, const KelIndexFacts& facts);

}  // namespace kel::host

#endif
