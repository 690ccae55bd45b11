// What is told about a file, as words and as JSON.
#ifndef KEL_TOOLS_INFO_JSON_HPP
#define KEL_TOOLS_INFO_JSON_HPP

#include <kel/host/probe.hpp>

#include <nlohmann/json.hpp>
#include <string>

namespace kel::tool {

std::string RoleName(host::ChannelRole role);
std::string SpaceName(std::uint32_t space);
/// The order of packets, "RLCP".
std::string Order(const host::Info& info);
std::string HexId(const std::array<std::uint8_t, 16>& id);
/// Whether the boxes describe the samples otherwise than the code stream, which counts.
bool BoxesDiffer(const host::Info::Component& component);

/// Everything for programs, under the name of the file.
nlohmann::ordered_json InfoJson(const std::string& name, const host::Info& info);

}  // namespace kel::tool

#endif
