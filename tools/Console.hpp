// What the command says while it works: messages on standard error, and a progress bar where
// that is a terminal.
#ifndef KEL_TOOLS_CONSOLE_HPP
#define KEL_TOOLS_CONSOLE_HPP

#include <cstddef>
#include <string>

namespace kel::tool {

/// Prints "kel: TEXT" and a line feed. May be called on any thread.
void PrintMessage(const std::string& text);

/// A bar that stands in the last line while it lives. One at a time.
class ProgressBar {
 public:
  /// Shows nothing unless wanted and standard error is a terminal.
  explicit ProgressBar(bool wanted);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// May be called on any thread.
  void Show(std::size_t done, std::size_t total, const std::string& label);
  bool IsShown() const { return shown_; }

 private:
  bool shown_;
};

}  // namespace kel::tool

#endif
