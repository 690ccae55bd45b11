// Colour descriptions: the records behind the 'colr' boxes of a file, and the helpers that
// make and recognise the default parameters of the two CIE colour spaces.
//
// Lists that the decoder hands out belong to the image object and live until its Die; lists
// handed to the encoder belong to the host.
#ifndef KEL_COLOR_H
#define KEL_COLOR_H

#include "KelTypes.h"

/// An ICC profile.
struct __tagICCProfile {
  KelULong size;             ///< in bytes
  const std::uint8_t* data;  ///< the profile bytes
};

/// Parameters of the CIELab (kind 1) and CIEJab (kind 2) colour spaces.
struct KelCIEParams {
  KelULong kind;              ///< 1 CIELab, 2 CIEJab
  KelULong rangeL, offsetL;   ///< RL and OL, or RJ and OJ
  KelULong rangeA, offsetA;   ///< RA and OA
  KelULong rangeB, offsetB;   ///< RB and OB
  KelULong illuminantKind;    ///< 1 illuminant code, 2 colour temperature, 0 for CIEJab
  KelULong illuminant;        ///< four characters as one big-endian number; 0x443530 is D50
  std::uint16_t temperature;  ///< colour temperature
};

/// One 'colr' box.
struct KelColorSpec {
  KelULong method;           ///< METH: 1 enumerated, 2 restricted ICC, 3 any ICC
  KelULong precedence;       ///< PREC
  KelULong approximation;    ///< APPROX
  KelULong enumeratedSpace;  ///< EnumCS (method 1): 14 CIELab, 16 sRGB, 17 grey, 18 sYCC, 19 CIEJab
  KelCIEParams cie;          ///< method 1 with space 14 or 19
  __tagICCProfile* iccProfile;  ///< methods 2 and 3, else null
  KelColorSpec* next;           ///< in the order of the file; null at the end
};

/// A list of colour descriptions.
struct __tagColorSpecList {
  KelULong count;       ///< number of entries
  KelColorSpec* first;  ///< null when empty
};

extern "C" {

/// Sets the default parameters of a CIE colour space whose first and second chrominance channels
/// have bitsA and bitsB bits: ranges 100, 170, 200 (kind 1) or 100, 255, 255 (kind 2), offsets
/// 0, 2^(bitsA-1), and 2^(bitsB-2) + 2^(bitsB-3) (kind 1) or 2^(bitsB-1) (kind 2), illuminant
/// D50 for kind 1. Returns 0; 15, with params untouched, for a null params, another kind, bitsA 0,
/// or bitsB below 3 (kind 1) or 0 (kind 2). An offset of more than 32 bits wraps.
KEL_API KelLong InitDefaultCIEParams(KelULong kind, KelCIEParams* params, KelULong bitsA,
                                     KelULong bitsB);

/// 1 when params holds exactly the defaults for its own kind and these depths (the colour
/// temperature is not compared), else 0; also 0 for null.
KEL_API KelLong CIEParamsAreDefaults(const KelCIEParams* params, KelULong bitsA, KelULong bitsB);

/// 1 when the library's own colour spaces cover the entry: method 2, or method 1 with space 16,
/// 17 or 18; else 0, also for null.
KEL_API KelLong ColorSpecIsKelCompatibile(const KelColorSpec* entry);
}

#endif
