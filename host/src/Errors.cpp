// Result codes as names and sentences, and the exception that carries them.
#include "kel/host/errors.hpp"

#include <array>
#include <cstdint>

#include "kel/KelTypes.h"

namespace kel::host {
namespace {

struct CodeText {
  KelLong code;
  std::string_view name, sentence;
};

constexpr std::array kCodes = {
    CodeText{KelOK, "KelOK", "no failure"},
    CodeText{KelErrNothingRead, "KelErrNothingRead", "there are no data"},
    CodeText{KelErrNoMemory, "KelErrNoMemory", "out of memory"},
    CodeText{KelErrBadMarker, "KelErrBadMarker",
             "a header of the code stream is damaged or cut off"},
    CodeText{KelErrBadParam, "KelErrBadParam",
             "parameters contradict each other or parts of the data are missing"},
    CodeText{KelErrPoolEmpty, "KelErrPoolEmpty", "an internal memory pool was empty"},
    CodeText{KelErrUnknownFormat, "KelErrUnknownFormat", "neither a Kel file nor a code stream"},
    CodeText{KelErrBadSegmentValue, "KelErrBadSegmentValue",
             "a header of the code stream holds a value that is not allowed"},
    CodeText{KelErrBoxSignature, "KelErrBoxSignature", "a box of the file is damaged or missing"},
    CodeText{KelErrBoxRange, "KelErrBoxRange", "the file ends inside a box"},
    CodeText{KelErrBoxStructure, "KelErrBoxStructure", "the boxes of the file are out of order"},
    CodeText{KelErrBoxHeader, "KelErrBoxHeader", "the file ends inside the header of a box"},
    CodeText{KelErrBoxTruncated, "KelErrBoxTruncated", "the file ends inside a box"},
    CodeText{KelErrAborted, "KelErrAborted", "the work was stopped"},
    CodeText{KelErrUnsupported, "KelErrUnsupported",
             "the data use a feature that is not supported, or are coded in another way"},
    CodeText{KelErrNotImplemented, "KelErrNotImplemented", "the operation does not exist"},
    CodeText{KelErrUnexpected, "KelErrUnexpected", "an unexpected failure inside the library"},
    CodeText{KelErrWriteFailed, "KelErrWriteFailed", "the output could not be written"},
};

const CodeText* Find(KelLong code) {
  for (const CodeText& text : kCodes) {
    if (text.code == code) return &text;
  }
  return nullptr;
}

std::string DescribeRaise(const KelException& raised, const KelErrorPlace& place) {
  std::string text(CodeName(raised.errCode));
  const char* file = place.file != nullptr ? place.file : raised.srcFile;
  if (file != nullptr) text += ", " + std::string(file) + ":" + std::to_string(raised.lineNum);
  return text;
}

}  // namespace

Error::Error(Failure kind, const std::string& sentence)
    : std::runtime_error(sentence), kind_(kind), sentence_(sentence) {}

Error::Error(Failure kind, const std::string& file, const std::string& sentence)
    : std::runtime_error(file + ": " + sentence), kind_(kind), sentence_(sentence), file_(file) {}

Error::Error(Failure kind, const std::string& sentence, const KelException& raised,
             const KelErrorPlace& place)
    : std::runtime_error(sentence),
      kind_(kind),
      sentence_(sentence),
      details_(DescribeRaise(raised, place)),
      code_(raised.errCode) {}

std::string_view CodeName(KelLong code) {
  const CodeText* text = Find(code);
  return text == nullptr ? "unknown code" : text->name;
}

std::string_view CodeSentence(KelLong code) {
  const CodeText* text = Find(code);
  return text == nullptr ? "an unknown failure" : text->sentence;
}

std::string FormatBytes(std::uint64_t bytes) {
  constexpr std::array kUnits = {" bytes", " KiB", " MiB", " GiB", " TiB"};
  std::size_t unit = 0;
  while (bytes > UINT64_MAX / 10) {  // so that tenths can be counted
    bytes /= 1024;
    ++unit;
  }
  std::uint64_t tenths = bytes * 10;
  while (tenths >= 10240 && unit + 1 < kUnits.size()) {
    tenths = (tenths + 512) / 1024;
    ++unit;
  }
  std::string text = std::to_string(tenths / 10);
  if (unit != 0 && tenths < 1000 && tenths % 10 != 0) {
    text.append(1, '.').append(std::to_string(tenths % 10));
  }
  return text.append(kUnits[unit]);
}

}  // namespace kel::host
