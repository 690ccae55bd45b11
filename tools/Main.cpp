// The `kel` command: reads the command line and runs one of its subcommands.
#include <exception>

#if defined(__GLIBC__)
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <cstdint>
#include <cstdlib>

#include "CommandLine.hpp"
#include "Console.hpp"
#include "Files.hpp"
#include "OutputFile.hpp"

namespace {

/// Blocks come again, so the heap keeps their pages. One heap serves all threads, and its first
/// part consists of large pages where the system has them: touching a small page for the first time
/// costs more than most of what is done with its bytes.
void SetUpHeap() {
#if defined(__GLIBC__) && defined(MADV_HUGEPAGE)
  constexpr int kFirstPart = 32 << 20, kLargePage = 2 << 20;
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_TOP_PAD, kFirstPart);
  void* volatile block = std::malloc(kLargePage);
  std::free(block);
  const auto end = reinterpret_cast<std::uintptr_t>(sbrk(0)) / kLargePage * kLargePage;
  madvise(reinterpret_cast<void*>(end - kFirstPart), kFirstPart, MADV_HUGEPAGE);
  mallopt(M_TOP_PAD, 128 << 10);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  SetUpHeap();
  kel::tool::RemoveOutputWhenInterrupted();
  try {
    return kel::tool::RunCommandLine(argc, argv);
  } catch (const std::exception& error) {
    kel::tool::PrintMessage(error.what());
    return kel::tool::kBadInput;
  }
}
