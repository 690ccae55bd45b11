// Output files that are whole or not there, and how the command works through its files.
#include "OutputFile.hpp"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Files.hpp"
#include "RawPlanes.hpp"
#include "TestImages.hpp"

namespace {

using namespace kel::host;
using namespace kel::tool;
using test::ErrorOf;
using test::Folder;

const Bytes kText = {'n', 'e', 'w'};

TEST(OutputFile, ReplacesOnlyWhenFinished) {
  const Folder folder;
  folder.Put("x", "old");
  {
    OutputFile file(folder.Path("x"));
    file.Write(kText);
    EXPECT_EQ(folder.Get("x"), "old");
    file.Finish();
    EXPECT_EQ(folder.Get("x"), "new");
  }
  folder.Put("x", "old");
  try {
    OutputFile file(folder.Path("x"));
    file.Write(kText);
    throw std::runtime_error("the work fails");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(folder.Get("x"), "old");
  EXPECT_EQ(folder.NumFiles(), 1U) << "nothing may be left beside it";
}

TEST(OutputFile, KeepsPermissionsAndLinks) {
  const Folder folder;
  folder.Put("real", "old");
  chmod(folder.Path("real").c_str(), 0640);
  ASSERT_EQ(symlink("real", folder.Path("link").c_str()), 0);
  OutputFile file(folder.Path("link"));
  file.Write(kText);
  file.Finish();
  EXPECT_EQ(folder.Get("real"), "new") << "written through the link";
  struct stat status {};
  lstat(folder.Path("link").c_str(), &status);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  stat(folder.Path("real").c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST(OutputFile, RefusalsNameTheFile) {
  const Folder folder;
  const Error missing = ErrorOf([&] { OutputFile(folder.Path("no/x")); });
  EXPECT_EQ(missing.Kind(), Failure::kOutput);
  EXPECT_EQ(missing.Sentence(), "cannot be created: No such file or directory");
  EXPECT_EQ(ErrorOf([&] { OutputFile(folder.Path("")); }).Sentence(), "is a directory");
  OutputFile full("/dev/full");
  const Error error = ErrorOf([&] {
    full.Write(kText);
    full.Finish();
  });
  EXPECT_EQ(error.File(), "/dev/full");
}

// The handler runs in a child, which writes and is interrupted before it has finished.
TEST(OutputFile, InterruptionLeavesNothing) {
  for (const int signal : {SIGINT, SIGTERM}) {
    const Folder folder;
    folder.Put("x", "old");
    const pid_t child = fork();
    if (child == 0) {
      RemoveOutputWhenInterrupted();
      OutputFile file(folder.Path("x"));
      OutputFile other(folder.Path("y"));
      file.Write(kText);
      raise(signal);
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), signal);
    EXPECT_EQ(folder.Get("x"), "old");
    EXPECT_EQ(folder.NumFiles(), 1U);
  }
}

// Byte order, bytes per sample and row padding of every depth; all files or none.
TEST(RawPlanes, AreBareLittleEndianSamples) {
  const Folder folder;
  Image image = MakeImage(3, 2, 3, 8);
  image.planes[1] = Plane(2, 1, 12);
  image.planes[1].xStep = 2;
  image.planes[2] = Plane(1, 1, 20);
  image.planes[0].Set(2, 1, 'z');
  image.planes[1].Set(1, 0, 0x0ABC);
  image.planes[2].Set(0, 0, 0xFEDCB);
  WriteRawPlanes(image, folder.Path("p"));
  EXPECT_EQ(folder.Get("p.c0.raw"), std::string("\0\0\0\0\0z", 6));
  EXPECT_EQ(folder.Get("p.c1.raw"), std::string("\0\0\xBC\x0A", 4));
  EXPECT_EQ(folder.Get("p.c2.raw"), std::string("\xCB\xED\x0F\0", 4));
  const std::string json = folder.Get("p.json");
  for (const char* part : {"\"file\": \"p.c2.raw\"", "\"depth\": 12", "\"signed\": false"}) {
    EXPECT_NE(json.find(part), std::string::npos) << json;
  }
  std::filesystem::create_directory(folder.Path("q.json"));  // the last file cannot be written
  EXPECT_EQ(ErrorOf([&] { WriteRawPlanes(image, folder.Path("q")); }).Kind(), Failure::kOutput);
  EXPECT_EQ(folder.NumFiles(), 5U);
}

FileOptions Options(std::vector<std::string> files, std::string folder = {}) {
  return {std::move(files), std::move(folder), 3, true};
}

TEST(Files, InputsAreMatchedWithOutputs) {
  std::vector<std::string> seen;
  const auto work = [&](const Task& task) {
    seen.push_back(task.input + ">" + task.output);
    return kDone;
  };
  EXPECT_EQ(RunTasks(Options({"a.png", "b"}), {".kel", false, {}}, work), kDone);
  EXPECT_EQ(seen.back(), "a.png>b");
  EXPECT_EQ(RunTasks(Options({"a.png"}), {".kel", true, {}}, work), kDone);
  EXPECT_EQ(seen.back(), "a.png>");
  const Folder folder;
  EXPECT_EQ(RunTasks(Options({"d/a.b.png"}, folder.Path("new")), {".kel", false, {}}, work), kDone);
  EXPECT_EQ(seen.back(), "d/a.b.png>" + folder.Path("new") + "/a.b.kel");
  EXPECT_THROW(RunTasks(Options({"a"}), {".kel", false, {}}, work), UsageError);
  EXPECT_THROW(RunTasks(Options({"a", "b", "c"}), {".kel", false, {}}, work), UsageError);
  EXPECT_THROW(RunTasks(Options({"a.png", "d/a.jpg"}, folder.Path("")), {".kel", false, {}}, work),
               UsageError)
      << "one output would overwrite the other";
  EXPECT_EQ(seen.size(), 3U) << "nothing runs when the files do not match";
}

TEST(Files, OneFailureDoesNotStopTheOthers) {
  const Folder folder;
  std::atomic<int> done{0};
  const auto work = [&](const Task& task) -> int {
    ++done;
    if (task.input == "2") throw Error(Failure::kMemory, "too large");
    if (task.input == "3") throw std::runtime_error("anything else");
    return task.input == "1" ? kIncompleteInput : kDone;
  };
  testing::internal::CaptureStderr();
  const int code = RunTasks(Options({"1", "2", "3", "4"}, folder.Path("out")),
                            {".kel", false, "; there is an option"}, work);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "kel: 2: too large; there is an option\nkel: 3: anything else\n"
            "kel: 2 of 4 files failed\n");
  EXPECT_EQ(done, 4);
  EXPECT_EQ(code, kMemoryLimit) << "a failure counts more than incomplete data before it";
}

TEST(Files, ExitCodesAndMessagesOfOneFile) {
  const auto run = [](Failure kind, const std::string& file) {
    testing::internal::CaptureStderr();
    const int code = RunTasks(Options({"in", "out"}), {".kel", false, {}}, [&](const Task&) -> int {
      if (file.empty()) throw Error(kind, "reason");
      throw Error(kind, file, "reason");
    });
    return std::to_string(code) + " " + testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(run(Failure::kInput, ""), "2 kel: in: reason\n");
  EXPECT_EQ(run(Failure::kOutput, ""), "4 kel: out: reason\n");
  EXPECT_EQ(run(Failure::kIncomplete, ""), "3 kel: in: reason\n");
  EXPECT_EQ(run(Failure::kInput, "mask.png"), "2 kel: mask.png: reason\n");
}

}  // namespace
