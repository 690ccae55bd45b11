// Messages and the progress bar share a line of the terminal, so they share a lock.
#include "Console.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>

#include "Text.hpp"

namespace kel::tool {
namespace {

constexpr std::size_t kMostBarWidth = 30;
constexpr std::size_t kLeastBarWidth = 5;
constexpr std::size_t kUsualWidth = 80;  // of a terminal that does not tell
constexpr auto kShortestPause = std::chrono::milliseconds(50);
constexpr const char* kClearLine = "\r\033[K";

std::mutex mutex;
std::string barLine;  // as it stands on the terminal; empty when there is none

std::size_t TerminalWidth() {
  struct winsize size {};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                         : kUsualWidth;
}

/// At most so many characters of a UTF-8 text, without those that would move the cursor.
std::string Shortened(const std::string& text, std::size_t width) {
  std::string kept;
  std::size_t count = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool begins = (byte & 0xC0) != 0x80;
    if (begins && count++ == width) break;
    kept += byte < 0x20 || byte == 0x7F ? '?' : c;
  }
  return kept;
}

}  // namespace

void PrintMessage(const std::string& text) {
  const std::lock_guard lock(mutex);
  const char* clear = barLine.empty() ? "" : kClearLine;
  const std::string shown = Printable(text);  // names of files are anything
  std::fprintf(stderr, "%skel: %s\n%s", clear, shown.c_str(), barLine.c_str());
  std::fflush(stderr);
}

ProgressDisplay::ProgressDisplay(const std::string& mode, std::size_t numFiles)
    : kind_(mode == "json"                                               ? Kind::kJson
            : mode == "bar" || (mode == "auto" && isatty(STDERR_FILENO)) ? Kind::kBar
                                                                         : Kind::kNone),
      parts_(numFiles) {}

ProgressDisplay::~ProgressDisplay() {
  const std::lock_guard lock(mutex);
  if (!barLine.empty()) std::fputs(kClearLine, stderr);
  barLine.clear();
}

void ProgressDisplay::ShowPart(std::size_t file, std::size_t done, std::size_t total,
                               const std::string& label) {
  if (total == 0) return;
  Update(file, static_cast<double>(std::min(done, total)) / static_cast<double>(total), false,
         label);
}

void ProgressDisplay::ShowDone(std::size_t file, const std::string& label) {
  Update(file, 1, true, label);
}

void ProgressDisplay::Update(std::size_t file, double part, bool isDone, const std::string& label) {
  if (kind_ == Kind::kNone) return;
  const std::lock_guard lock(mutex);
  work_ += part - static_cast<double>(parts_[file]);
  parts_[file] = static_cast<float>(part);
  done_ += isDone ? 1 : 0;
  const auto now = std::chrono::steady_clock::now();
  if (now - lastShown_ < kShortestPause && done_ != parts_.size()) return;
  lastShown_ = now;
  Draw(label);
}

void ProgressDisplay::Draw(const std::string& label) const {
  const std::size_t total = parts_.size();
  const double part = std::clamp(work_ / static_cast<double>(total), 0.0, 1.0);
  if (kind_ == Kind::kJson) {
    const nlohmann::ordered_json line = {
        {"done", done_}, {"total", total}, {"fraction", part}, {"file", label}};
    const auto replace = nlohmann::ordered_json::error_handler_t::replace;
    std::fprintf(stderr, "%s\n", line.dump(-1, ' ', false, replace).c_str());
  } else {
    std::string count(1, ' ');
    count.append(std::to_string(done_)).append(1, '/').append(std::to_string(total)).append(1, ' ');
    // The last column stays free: a terminal that is full to the edge wraps.
    const std::size_t room = TerminalWidth() - std::min(TerminalWidth(), count.size() + 3);
    const std::size_t barWidth = std::clamp(room / 2, kLeastBarWidth, kMostBarWidth);
    const auto filled = static_cast<std::size_t>(part * static_cast<double>(barWidth));
    barLine.assign(1, '[').append(filled, '#').append(barWidth - filled, '.').append("]");
    barLine.append(count).append(Shortened(label, room - std::min(room, barWidth)));
    std::fprintf(stderr, "%s%s", kClearLine, barLine.c_str());
  }
  std::fflush(stderr);
}

}  // namespace kel::tool
