// Image files and Kel files into each other, row by row, as the command does it.
#ifndef KEL_PYTHON_FILES_HPP
#define KEL_PYTHON_FILES_HPP

#include <string>

#include "Requests.hpp"

namespace kel::python {

/// Encodes an image file; returns the bytes written. options: those of coding, and of a comment and
/// a resolution instead of the file's.
std::uint64_t EncodeFile(const std::string& input, const std::string& output,
                         const py::dict& options);
/// Decodes into an image file of the format that the output's ending tells. options: reduce, fit,
/// exact, strict (False unless given), threads.
void DecodeFile(const std::string& input, const std::string& output, const py::dict& options);
/// The PSNR of two pictures in image files or Kel files, in decibels; infinite when identical.
double CompareFiles(const std::string& first, const std::string& second);

}  // namespace kel::python

#endif
