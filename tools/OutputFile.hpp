// Output that is whole or not there: written beside its name and renamed when complete, removed
// when the program fails or is interrupted. An existing file stays as it is until then.
#ifndef KEL_TOOLS_OUTPUT_FILE_HPP
#define KEL_TOOLS_OUTPUT_FILE_HPP

#include <kel/host/streams.hpp>

#include <cstdio>
#include <string>
#include <vector>

namespace kel::tool {

/// The name that stands for standard input and output.
inline const std::string kStandardStream = "-";

/// What becomes of a file that has the output's name already.
enum class OnExisting { kReplace, kKeep };

/// From now on no output will replace these files, whatever names they are called by; for the
/// inputs. Those that do not exist are passed over. "-" is what standard input is read from.
void ProtectFiles(const std::vector<std::string>& paths);
/// Whether a path leads to a protected file; "-" is where standard output goes.
bool IsProtected(const std::string& path);

class OutputFile : public host::Sink {
 public:
  /// "-" is standard output. That, a device or a pipe is written to directly. Throws Error
  /// (kOutput), as do all operations; also for a protected file, and with kKeep for one that
  /// exists, be it that it appeared while the output was written.
  explicit OutputFile(const std::string& path, OnExisting onExisting = OnExisting::kReplace);
  /// Removes what was written unless Finish has been called.
  ~OutputFile() override;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void Write(host::ByteView bytes) override;
  bool Rewrite(std::uint64_t offset, host::ByteView bytes) override;
  /// Nothing more will be written: closes the file, which has yet to get its name. A program can
  /// have many outputs unfinished then without having many files open.
  void Close();
  /// Closes the file and gives it its name.
  void Finish() override;

 private:
  void OpenBeside();
  void PutInPlace();
  void Discard();
  [[noreturn]] void Fail(const std::string& what) const;

  std::string path_;       ///< as given, for messages
  std::string target_;     ///< with links followed
  std::string temporary_;  ///< empty when written to directly
  OnExisting onExisting_;
  int slot_ = -1;  ///< where the temporary name is noted for an interruption
  std::FILE* file_ = nullptr;
};

/// Makes the signals that end a program remove all unfinished output first.
void RemoveOutputWhenInterrupted();

}  // namespace kel::tool

#endif
