// The report of a batch.
#include "Report.hpp"

#include <kel/host/errors.hpp>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "OutputFile.hpp"

namespace kel::tool {

using host::Error;
using host::Failure;

std::string JsonLine(const nlohmann::ordered_json& object) {
  return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

Report::Report(const std::string& path) : path_(path) {
  if (path.empty()) return;
  if (IsProtected(path)) throw Error(Failure::kOutput, path, "is one of the inputs");
  file_ = std::fopen(path.c_str(), "ab");
  if (file_ == nullptr) Fail();
}

Report::~Report() {
  if (file_ != nullptr) std::fclose(file_);
}

void Report::Add(const nlohmann::ordered_json& line) {
  if (file_ == nullptr) return;
  const std::string text = JsonLine(line);
  if (std::fwrite(text.data(), 1, text.size(), file_) != text.size() || std::fflush(file_) != 0) {
    Fail();
  }
}

void Report::Fail() const {
  throw Error(Failure::kOutput, path_, std::string("cannot be written: ") + std::strerror(errno));
}

}  // namespace kel::tool
