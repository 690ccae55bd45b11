// The image object's queries, over its state. All tolerate indices out of range.
#ifndef KEL_IMAGE_QUERY_H
#define KEL_IMAGE_QUERY_H

#include "image/KelImageState.h"

namespace kel {

KelLong LevelsOfTile(ImageState& state, KelLong tile);
KelTileComponent* TileComponentOf(ImageState& state, KelLong tile, KelLong component);
bool TileIsComplete(const ImageState& state, KelLong tile);
bool TileIsUntouched(const ImageState& state, KelLong tile);
__tagICCProfile* ICCProfileOf(const ImageState& state);
KelLong NumColorChannelsOf(const ImageState& state);
KelChannelType ComponentTypeOf(const ImageState& state, KelLong component);
KelLong ChannelIndexOf(const ImageState& state, KelLong n);
bool HasTransparencyChannel(const ImageState& state);
KelOpacityType TransparencyTypeOf(const ImageState& state);
KelChromaKey* ChromaKeyOf(const ImageState& state);
KelLong TransparencyChannelOf(const ImageState& state, KelLong n);
KelLong GlobalTransparencyChannelOf(const ImageState& state);

}  // namespace kel

#endif
