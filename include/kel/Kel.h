// Everything that a host needs of the Kel library.
#ifndef KEL_KEL_H
#define KEL_KEL_H

#include "KelColor.h"
#include "KelDamage.h"
#include "KelFileRecords.h"
#include "KelFormat.h"
#include "KelGeometry.h"
#include "KelImage.h"
#include "KelImageData.h"
#include "KelIndex.h"
#include "KelMemory.h"
#include "KelOptions.h"
#include "KelStream.h"
#include "KelTileComponent.h"
#include "KelTypes.h"

#endif
