// Temporary files beside their targets, and a list of them for the signal handler.
#include "OutputFile.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <kel/host/errors.hpp>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <utility>

namespace kel::tool {
namespace {

using host::Error;
using host::Failure;

/// Names of unfinished files. A handler of signals may only look at memory that is there already.
struct Slot {
  enum State : int { kFree, kBusy, kNamed };
  std::atomic<int> state{kFree};
  char name[PATH_MAX] = {};
};
/// Outputs that are open at a time, whose names the handler of signals finds without a lock.
constexpr int kSlots = 1024;
std::array<Slot, kSlots> slots;

/// Notes a name; -1 when there is no room for it.
int NoteName(const std::string& name) {
  if (name.size() >= PATH_MAX) return -1;
  for (int i = 0; i < kSlots; ++i) {
    Slot& slot = slots[static_cast<std::size_t>(i)];
    int expected = Slot::kFree;
    if (!slot.state.compare_exchange_strong(expected, Slot::kBusy)) continue;
    std::memcpy(slot.name, name.c_str(), name.size() + 1);
    slot.state = Slot::kNamed;
    return i;
  }
  return -1;
}

void ForgetName(int slot) {
  if (slot >= 0) slots[static_cast<std::size_t>(slot)].state = Slot::kFree;
}

/// Removes unfinished output, then lets the signal end the program.
void OnSignal(int signal) {
  for (Slot& slot : slots) {
    if (slot.state == Slot::kNamed) unlink(slot.name);
  }
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
  raise(signal);
}

constexpr int kMostLinks = 40;  // as the system has it

/// The file that a path leads to, links followed, also when it does not exist yet: a link may
/// lead to a file that is still to be made.
std::string Resolve(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::path target = path;
  for (int i = 0; i < kMostLinks && fs::is_symlink(fs::symlink_status(target, error)); ++i) {
    target = target.parent_path() / fs::read_symlink(target, error);
  }
  const fs::path resolved = fs::weakly_canonical(target, error);
  return error ? target.string() : resolved.string();
}

/// A file, whatever its names.
using FileId = std::pair<dev_t, ino_t>;
std::set<FileId> protectedFiles;
std::mutex protectedMutex;

std::atomic<unsigned> temporaryCount{0};

/// Names are at most 255 bytes long; so much of the target's leaves room for the rest.
constexpr std::size_t kMostOfName = 200;

std::string TemporaryName(const std::string& target) {
  const std::filesystem::path path(target);
  std::string name(1, '.');
  name.append(path.filename().string().substr(0, kMostOfName)).append(1, '.');
  name += std::to_string(getpid()) + "-" + std::to_string(temporaryCount.fetch_add(1)) + ".part";
  return (path.parent_path() / name).string();
}

}  // namespace

void ProtectFiles(const std::vector<std::string>& paths) {
  std::set<FileId> files;
  for (const std::string& path : paths) {
    struct stat status {};
    const int result =
        path == kStandardStream ? fstat(STDIN_FILENO, &status) : stat(path.c_str(), &status);
    if (result == 0 && S_ISREG(status.st_mode)) files.emplace(status.st_dev, status.st_ino);
  }
  const std::lock_guard lock(protectedMutex);
  protectedFiles.swap(files);
}

bool IsProtected(const std::string& path) {
  struct stat status {};
  const int result =
      path == kStandardStream ? fstat(STDOUT_FILENO, &status) : stat(path.c_str(), &status);
  if (result != 0) return false;
  const std::lock_guard lock(protectedMutex);
  return protectedFiles.contains({status.st_dev, status.st_ino});
}

OutputFile::OutputFile(const std::string& path, OnExisting onExisting)
    : path_(path), onExisting_(onExisting) {
  target_ = path == kStandardStream ? path : Resolve(path);
  if (IsProtected(target_)) Fail("is one of the inputs, and stays as it is");
  if (path == kStandardStream) return;
  struct stat existing {};
  const bool exists = stat(target_.c_str(), &existing) == 0;
  if (exists && S_ISDIR(existing.st_mode)) Fail("is a directory");
  if (exists && !S_ISREG(existing.st_mode)) {
    file_ = std::fopen(target_.c_str(), "wb");
    if (file_ == nullptr) Fail(std::string("cannot be opened: ") + std::strerror(errno));
    return;
  }
  if (exists && onExisting == OnExisting::kKeep) Fail("exists already");
  if (exists && access(target_.c_str(), W_OK) != 0) {
    Fail(std::string("cannot be replaced: ") + std::strerror(errno));
  }
  OpenBeside();
  if (exists) chmod(temporary_.c_str(), existing.st_mode & 07777);
}

OutputFile::~OutputFile() {
  Discard();
}

void OutputFile::OpenBeside() {
  int descriptor = -1;
  do {  // a killed process of the same number can have left its file behind
    ForgetName(slot_);
    temporary_ = TemporaryName(target_);
    slot_ = NoteName(temporary_);
    descriptor = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  } while (descriptor < 0 && errno == EEXIST);
  file_ = descriptor < 0 ? nullptr : fdopen(descriptor, "wb");
  if (file_ != nullptr) return;
  const std::string reason = std::strerror(errno);
  if (descriptor >= 0) {
    close(descriptor);
    unlink(temporary_.c_str());
  }
  ForgetName(slot_);
  slot_ = -1;
  temporary_.clear();
  Fail("cannot be created: " + reason);
}

void OutputFile::Discard() {
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
  if (!temporary_.empty()) unlink(temporary_.c_str());
  temporary_.clear();
  ForgetName(slot_);
  slot_ = -1;
}

void OutputFile::Fail(const std::string& what) const {
  throw Error(Failure::kOutput, path_ == kStandardStream ? "standard output" : path_, what);
}

void OutputFile::Write(host::ByteView bytes) {
  if (bytes.empty()) return;  // of which there may be no address
  std::FILE* const file = path_ == kStandardStream ? stdout : file_;
  if (std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
    Fail(std::string("cannot be written: ") + std::strerror(errno));
  }
}

bool OutputFile::Rewrite(std::uint64_t offset, host::ByteView bytes) {
  if (temporary_.empty()) return false;
  if (bytes.empty()) return true;
  const bool written = fseeko(file_, static_cast<off_t>(offset), SEEK_SET) == 0 &&
                       std::fwrite(bytes.data(), 1, bytes.size(), file_) == bytes.size() &&
                       fseeko(file_, 0, SEEK_END) == 0;
  if (!written) Fail(std::string("cannot be written: ") + std::strerror(errno));
  return true;
}

void OutputFile::Close() {
  if (file_ == nullptr) return;
  const bool closed = std::fclose(std::exchange(file_, nullptr)) == 0;
  if (!closed) Fail(std::string("cannot be written: ") + std::strerror(errno));
}

void OutputFile::PutInPlace() {
  // A second name for the file fails where the name is taken; renaming would replace.
  const bool keep = onExisting_ == OnExisting::kKeep;
  if (keep && link(temporary_.c_str(), target_.c_str()) == 0) {
    unlink(temporary_.c_str());
    return;
  }
  if (keep && errno == EEXIST) Fail("exists already");
  // Where a file system has no second names, there is no way but to look and then rename.
  if (keep && access(target_.c_str(), F_OK) == 0) Fail("exists already");
  if (std::rename(temporary_.c_str(), target_.c_str()) != 0) {
    Fail(std::string("cannot be put in place: ") + std::strerror(errno));
  }
}

void OutputFile::Finish() {
  if (path_ == kStandardStream) {
    if (std::fflush(stdout) != 0) Fail(std::string("cannot be written: ") + std::strerror(errno));
    return;
  }
  Close();
  if (temporary_.empty()) return;
  PutInPlace();
  temporary_.clear();
  ForgetName(slot_);
  slot_ = -1;
}

void RemoveOutputWhenInterrupted() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU, SIGXFSZ}) {
    struct sigaction current {};
    sigaction(signal, nullptr, &current);
    if (current.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);
  }
  action.sa_handler = SIG_IGN;  // a closed pipe is told by the result of writing
  sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace kel::tool
