// How the host kit reports failures: one exception class that carries a sentence for people, a
// kind for programs, and, when the library failed, its code and where it was raised.
#ifndef KEL_HOST_ERRORS_HPP
#define KEL_HOST_ERRORS_HPP

#include "language.hpp"

#include <kel/KelMemory.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace kel::host {

/// What a program can do about a failure depends on its kind.
enum class Failure {
  kInput,       ///< data that cannot be read or decoded
  kIncomplete,  ///< data that end early, where incomplete data were not accepted
  kOutput,      ///< a destination that cannot be written, or that cannot hold the image
  kMemory,      ///< out of memory, or beyond the session's limit or that on pixels
  kParameter,   ///< parameters, or an image, that the called function does not allow
  kTime         ///< the limit on time was reached, or the caller wanted no more (Limits::stop)
};

class Error : public std::runtime_error {
 public:
  /// sentence: what happened, without capital and full stop, fit to follow "NAME: ".
  Error(Failure kind, const std::string& sentence);
  /// The same about a file, whose name what() puts in front of the sentence.
  Error(Failure kind, const std::string& file, const std::string& sentence);
  /// A failure of the library, with its place where that is known.
  Error(Failure kind, const std::string& sentence, const KelException& raised,
        const KelErrorPlace& place = {nullptr, -1});

  Failure Kind() const { return kind_; }
  const std::string& Sentence() const { return sentence_; }
  const std::string& File() const { return file_; }  ///< empty when not about a file
  KelLong Code() const { return code_; }             ///< the library's; 0 when it did not fail
  /// "KelErrBadMarker, common/src/decode/KelHeadersRead.cpp:120"; empty when the library did not
  /// fail.
  const std::string& Details() const { return details_; }

 private:
  Failure kind_;
  std::string sentence_, file_, details_;
  KelLong code_ = KelOK;
};

/// Name of a result code, "KelErrBadMarker".
std::string_view CodeName(KelLong code);
/// What a result code means to a person who decodes an image.
std::string_view CodeSentence(KelLong code);

/// "512 bytes", "64 MiB", "1.5 GiB".
std::string FormatBytes(std::uint64_t bytes);

}  // namespace kel::host

#endif
