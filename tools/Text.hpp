// Text of unknown origin: made UTF-8, and made harmless for a terminal.
#ifndef KEL_TOOLS_TEXT_HPP
#define KEL_TOOLS_TEXT_HPP

#include <string>

namespace kel::tool {

/// A comment as UTF-8. The format calls comments Latin-1; many programs write UTF-8 all the same.
std::string Utf8(const std::string& comment);

/// UTF-8 text that does nothing to a terminal but stand there.
std::string Printable(const std::string& text);

}  // namespace kel::tool

#endif
