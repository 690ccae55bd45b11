// What callers ask for, as dictionaries of Python, in the kit's terms; and what the kit tells of a
// picture, in Python's.
#ifndef KEL_PYTHON_REQUESTS_HPP
#define KEL_PYTHON_REQUESTS_HPP

#include <kel/host/decode.hpp>
#include <kel/host/encode.hpp>
#include <kel/host/image.hpp>
#include <kel/host/picture.hpp>

#include "Arrays.hpp"

namespace kel::python {

/// Options by name, each taken once. What is left over at the end nobody knows.
class Options {
 public:
  explicit Options(const py::dict& options) : left_(options.attr("copy")()) {}

  /// Stores the option unless it is missing or None. Throws TypeError for a value of another type.
  template <class Value>
  bool Take(const char* name, Value& value) {
    const py::object found = left_.attr("pop")(name, py::none());
    if (found.is_none()) return false;
    try {
      value = found.cast<Value>();
    } catch (const py::cast_error&) {
      throw py::type_error(std::string(name) + " cannot be " + py::repr(found).cast<std::string>());
    }
    return true;
  }
  /// Throws TypeError when an option has not been taken.
  void Finish() const;

 private:
  py::dict left_;
};

/// What an array is encoded with.
struct EncodeRequest {
  host::EncodeParams params;
  host::Image image;  ///< the description, and the mask of a region as its own image
  host::Image mask;
};
/// samples tells the size and the number of channels.
EncodeRequest ReadEncodeRequest(const Samples& samples, const py::dict& options);
/// The names of the options of coding that are not about the picture itself.
std::vector<std::string> CodingOptions();
/// The parameters of coding alone, for pictures that are not arrays.
host::EncodeParams TakeCoding(Options& options, host::Image& mask);

/// The option fit, (width, height). Not beside halvings, which are to have been taken before.
void TakeFit(Options& options, host::DecodeParams& params);
/// A rectangle from (x, y, width, height).
host::Region ReadRegion(const py::object& region);

/// The attributes of a picture: profile, EXIF, XMP, resolution, palette, opacity and the rest.
py::dict DescribeForPython(const host::Image& image);
/// What the array of a decoded picture is like: planes of one depth and size.
host::Image DescribeArray(const host::Image& image, bool indices);
/// Makes a decoded image what its array holds; indices: keep those into a palette.
void MakePlain(host::Image& image, bool indices);

}  // namespace kel::python

#endif
