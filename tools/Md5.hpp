// The digest by which the parts of long XMP in a JPEG file find each other.
#ifndef KEL_TOOLS_MD5_HPP
#define KEL_TOOLS_MD5_HPP

#include <kel/host/streams.hpp>

#include <string>

namespace kel::tool {

/// The MD5 digest as 32 digits of hexadecimal.
std::string Md5Digits(host::ByteView bytes);

}  // namespace kel::tool

#endif
