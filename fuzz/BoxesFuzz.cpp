// Reads the boxes of arbitrary data in either layout and touches everything that was found.
#include "FuzzSupport.h"
#include "decode/KelFileFormatRead.h"

namespace {

using fuzz::Require;

std::uint64_t touched = 0;

template <class T>
void Touch(const T* values, std::uint64_t n) {
  for (std::uint64_t i = 0; i < n; ++i) touched += static_cast<std::uint64_t>(values[i]);
}

void TouchAll(const kel::KelFileInfo& f) {
  Touch(f.imageHeader->bitDepths, f.imageHeader->NC);
  Touch(f.imageHeader->isSigned, f.imageHeader->NC);
  KelULong count = 0;
  const KelColorSpec* e = f.ColorSpecList != nullptr ? f.ColorSpecList->first : nullptr;
  for (; e != nullptr; e = e->next, ++count) {
    if (e->iccProfile != nullptr) Touch(e->iccProfile->data, e->iccProfile->size);
  }
  Require(f.ColorSpecList == nullptr || f.ColorSpecList->count == count);
  kel::ChooseICCProfile(f.ColorSpecList);
  for (KelULong i = 0; i < f.NumXMLBoxes; ++i) Touch(f.XMLBoxes[i].data, f.XMLBoxes[i].length);
  for (KelULong i = 0; i < f.NumUUIDBoxes; ++i) Touch(f.UUIDBoxes[i].data, f.UUIDBoxes[i].length);
  for (KelULong i = 0; f.PalettePresent && i < f.Palette->numColumns; ++i) {
    const __tagKelPalette& p = *f.Palette;
    Touch(p.columns[i], p.numEntries * ((p.depths[i] + 7U) / 8));
  }
  for (KelULong i = 0; f.ChannelDefPresent && i < f.ChannelDefs->N; ++i) {
    Require(f.ChannelDefs->order[i] >= -1 && f.ChannelDefs->order[i] <= 65535);
  }
  if (f.opacityPresent && f.opacity->chromaKey != nullptr) {
    Touch(f.opacity->chromaKey->values, f.opacity->chromaKey->numChannels);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const fuzz::Setting setting(input, kel::kBoxWindowBytes);
  fuzz::Run(setting.refused, 16 * size + 140000, [&] {
    kel::KelFileInfo info{};
    kel::ScopeGuard release([&] { kel::ReleaseFileInfo(&info); });
    test::DataSource source(input.Rest(), setting.flavour, setting.how);
    kel::InitFileInfo(info);
    const KelLong code = kel::ReadBoxes(info, *source).errCode;
    Require(code == 0 || code == 21 || code == 22 || code == 25 || code == 26);
    if (code == KelOK) TouchAll(info);
  });
  return 0;
}
