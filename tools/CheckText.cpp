// Flaws and losses in words.
#include "CheckText.hpp"

#include <initializer_list>
#include <sstream>
#include <utility>

namespace kel::tool {
namespace {

/// "tile 3, component 0": those of the numbers that apply.
std::string Places(std::initializer_list<std::pair<const char*, std::int64_t>> numbers) {
  std::string text;
  for (const auto& [name, number] : numbers) {
    if (number < 0) continue;
    text += (text.empty() ? "" : ", ") + std::string(name) + " " + std::to_string(number);
  }
  return text;
}

}  // namespace

std::string FlawText(const host::Flaw& flaw) {
  std::ostringstream text;
  text << NameOf(flaw.kind) << ": "
       << Places({{"tile", flaw.tile},
                  {"part", flaw.part},
                  {"component", flaw.component},
                  {"resolution", flaw.resolution},
                  {"layer", flaw.layer},
                  {"precinct", flaw.precinct}})
       << (flaw.tile >= 0 ? ", " : "") << "at byte " << flaw.offset << ": ";
  if (flaw.claimed != 0) text << flaw.claimed << " claimed, ";
  text << flaw.found << " found";
  if (flaw.count > 1) text << ", " << flaw.count << " of them";
  return text.str();
}

std::string LossText(const host::Loss& loss) {
  std::ostringstream text;
  text << Places({{loss.tiles > 1 ? "tiles from" : "tile", loss.tile},
                  {"component", loss.component},
                  {"resolution", loss.resolution}});
  if (loss.tiles > 1) text << " on, " << loss.tiles << " of them";
  if (loss.missing != 0) text << ", " << loss.missing << " packets missing";
  if (loss.damaged != 0) text << ", " << loss.damaged << " packets damaged";
  return text.str();
}

}  // namespace kel::tool
