// What was found wrong with a file, in words.
#ifndef KEL_TOOLS_CHECK_TEXT_HPP
#define KEL_TOOLS_CHECK_TEXT_HPP

#include <kel/host/check.hpp>

#include <string>

namespace kel::tool {

/// "band: tile 3, component 0, resolution 5, at byte 70012: 3310 claimed, 90 found".
std::string FlawText(const host::Flaw& flaw);
/// "tile 3, component 0, resolution 5, 1 packets damaged".
std::string LossText(const host::Loss& loss);

}  // namespace kel::tool

#endif
