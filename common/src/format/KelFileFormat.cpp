// Making and releasing the findings of the box readers, and choosing the reported ICC profile.
#include "format/KelFileFormat.h"

#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"

namespace kel {
namespace {

/// Frees bytes that a public record shows as constant.
void FreeBytes(const std::uint8_t* bytes) noexcept {
  KelFree(const_cast<std::uint8_t*>(bytes));
}

void ReleaseColorSpecs(KelFileInfo& info) noexcept {
  if (info.ColorSpecList == nullptr) return;
  for (KelColorSpec* entry = info.ColorSpecList->first; entry != nullptr;) {
    KelColorSpec* next = entry->next;
    if (entry->iccProfile != nullptr) FreeBytes(entry->iccProfile->data);
    KelFree(entry->iccProfile);
    KelFree(entry);
    entry = next;
  }
  KelFree(info.ColorSpecList);
}

}  // namespace

void InitFileInfo(KelFileInfo& info) {
  NamingModule(kModuleFileFormat,
               [&] { info.imageHeader = OwnedRecord<KelImageHeaderInfo>::Make().Release(); });
}

void ReleaseChannelDefinition(KelFileInfo& info) noexcept {
  if (info.ChannelDefs != nullptr) {
    KelFree(info.ChannelDefs->order);
    KelFree(info.ChannelDefs->Cn);
    KelFree(info.ChannelDefs->Typ);
    KelFree(info.ChannelDefs->Asoc);
    KelFree(info.ChannelDefs);
  }
  info.ChannelDefs = nullptr;
  info.ChannelDefPresent = false;
}

void ReleasePalette(KelFileInfo& info) noexcept {
  for (KelULong i = 0; i < info.numPaletteColumns; ++i) {
    if (info.paletteColumns[i] != info.emptyColumn) KelFree(info.paletteColumns[i]);
  }
  KelFree(info.emptyColumn);
  KelFree(info.paletteColumns);
  if (info.Palette != nullptr) {
    KelFree(info.Palette->depths);
    KelFree(info.Palette->columns);
    KelFree(info.Palette->mapComponent);
    KelFree(info.Palette->mapType);
    KelFree(info.Palette->mapColumn);
    KelFree(info.Palette);
  }
  info.Palette = nullptr;
  info.paletteColumns = nullptr;
  info.emptyColumn = nullptr;
  info.numPaletteColumns = 0;
  info.numMappings = 0;
  info.PalettePresent = false;
}

void ReleaseOpacity(KelFileInfo& info) noexcept {
  if (info.opacity != nullptr && info.opacity->chromaKey != nullptr) {
    KelFree(info.opacity->chromaKey->values);
    KelFree(info.opacity->chromaKey);
  }
  KelFree(info.opacity);
  info.opacity = nullptr;
  info.opacityPresent = false;
}

void ReleaseFileInfo(KelFileInfo* info) noexcept {
  if (info == nullptr) return;
  ReleaseChannelDefinition(*info);
  ReleasePalette(*info);
  ReleaseOpacity(*info);
  ReleaseColorSpecs(*info);
  for (KelULong i = 0; i < info->NumXMLBoxes; ++i) FreeBytes(info->XMLBoxes[i].data);
  for (KelULong i = 0; i < info->NumUUIDBoxes; ++i) FreeBytes(info->UUIDBoxes[i].data);
  KelFree(info->XMLBoxes);
  KelFree(info->UUIDBoxes);
  KelFree(info->boxes);
  if (info->imageHeader != nullptr) {
    KelFree(info->imageHeader->bitDepths);
    KelFree(info->imageHeader->isSigned);
    KelFree(info->imageHeader);
  }
  *info = KelFileInfo{};
}

__tagICCProfile* ChooseICCProfile(__tagColorSpecList* list) {
  const KelColorSpec* choice = nullptr;
  for (const KelColorSpec* e = list != nullptr ? list->first : nullptr; e != nullptr; e = e->next) {
    if (e->method != 2 && e->method != 3) continue;
    const bool isBetter = choice == nullptr || e->precedence > choice->precedence ||
                          e->approximation < choice->approximation;
    if (isBetter) choice = e;
  }
  return choice != nullptr ? choice->iccProfile : nullptr;
}

}  // namespace kel
