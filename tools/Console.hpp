// What the command says while it works: messages on standard error, and how far it has come.
#ifndef KEL_TOOLS_CONSOLE_HPP
#define KEL_TOOLS_CONSOLE_HPP

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace kel::tool {

/// Prints "kel: TEXT" and a line feed. May be called on any thread.
void PrintMessage(const std::string& text);

/// Shows how far the work on some files has come: a bar that stands in the last line of the
/// terminal while the object lives, or lines of JSON. One at a time.
class ProgressDisplay {
 public:
  /// mode: "bar", "json", "none", or "auto" for a bar where standard error is a terminal.
  ProgressDisplay(const std::string& mode, std::size_t numFiles);
  ~ProgressDisplay();
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;

  /// So much of a file is done. May be called on any thread.
  void ShowPart(std::size_t file, std::size_t done, std::size_t total, const std::string& label);
  /// A file is done, well or not.
  void ShowDone(std::size_t file, const std::string& label);
  bool IsShown() const { return kind_ != Kind::kNone; }

 private:
  enum class Kind { kNone, kBar, kJson };

  void Update(std::size_t file, double part, bool isDone, const std::string& label);
  void Draw(const std::string& label) const;

  Kind kind_;
  std::size_t done_ = 0;
  double work_ = 0;           ///< files done, with the parts of those under way
  std::vector<float> parts_;  ///< of each file
  std::chrono::steady_clock::time_point lastShown_{};
};

}  // namespace kel::tool

#endif
