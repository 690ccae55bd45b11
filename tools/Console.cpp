// Messages and the progress bar share a line of the terminal, so they share a lock.
#include "Console.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <mutex>

namespace kel::tool {
namespace {

constexpr std::size_t kBarWidth = 30;
constexpr std::size_t kLabelWidth = 40;
constexpr const char* kClearLine = "\r\033[K";

std::mutex mutex;
std::string barLine;  // as it stands on the terminal; empty when there is none

}  // namespace

void PrintMessage(const std::string& text) {
  const std::lock_guard lock(mutex);
  const char* clear = barLine.empty() ? "" : kClearLine;
  std::fprintf(stderr, "%skel: %s\n%s", clear, text.c_str(), barLine.c_str());
  std::fflush(stderr);
}

ProgressBar::ProgressBar(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) != 0) {}

ProgressBar::~ProgressBar() {
  const std::lock_guard lock(mutex);
  if (!barLine.empty()) std::fputs(kClearLine, stderr);
  barLine.clear();
}

void ProgressBar::Show(std::size_t done, std::size_t total, const std::string& label) {
  if (!shown_ || total == 0) return;
  const std::size_t filled = std::min(done, total) * kBarWidth / total;
  std::string line(1, '[');
  line.append(filled, '#').append(kBarWidth - filled, '.').append("] ");
  line += std::to_string(done) + "/" + std::to_string(total) + " " + label.substr(0, kLabelWidth);
  const std::lock_guard lock(mutex);
  barLine = std::move(line);
  std::fprintf(stderr, "%s%s", kClearLine, barLine.c_str());
  std::fflush(stderr);
}

}  // namespace kel::tool
