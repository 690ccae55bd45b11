// A report of what became of many files, for programs.
#ifndef KEL_TOOLS_REPORT_HPP
#define KEL_TOOLS_REPORT_HPP

#include <cstdio>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kel::tool {

/// A line of JSON; bytes that are no text in it are replaced.
std::string JsonLine(const nlohmann::ordered_json& object);

/// One line of JSON for each input, added to what the file holds already. Each is whole when it is
/// written, so that a run that was killed leaves a report that can be read.
class Report {
 public:
  /// An empty path stands for no report. Throws Error (kOutput).
  explicit Report(const std::string& path);
  ~Report();
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  void Add(const nlohmann::ordered_json& line);

 private:
  [[noreturn]] void Fail() const;

  std::string path_;
  std::FILE* file_ = nullptr;
};

}  // namespace kel::tool

#endif
