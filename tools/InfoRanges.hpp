// Which bytes of a file the tiles of a picture need at each of its resolutions.
#ifndef KEL_TOOL_INFO_RANGES_HPP
#define KEL_TOOL_INFO_RANGES_HPP

#include <kel/host/ranges.hpp>

#include <nlohmann/json.hpp>

namespace kel::tool {

/// For people: a line per tile and resolution.
void PrintRanges(host::RangeSource& file);
/// For programs: an object with the front and an array of tiles and resolutions.
nlohmann::ordered_json RangesJson(host::RangeSource& file);

}  // namespace kel::tool

#endif
