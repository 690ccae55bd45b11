// Output files that are whole or not there, and how the command works through its files.
#include "OutputFile.hpp"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "DecodedRows.hpp"
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
  ASSERT_EQ(symlink("absent", folder.Path("dangling").c_str()), 0);
  OutputFile made(folder.Path("dangling"));
  made.Write(kText);
  made.Finish();
  EXPECT_EQ(folder.Get("absent"), "new") << "what a link leads to is made, not the link replaced";
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

// Rows that go on as they come: pieces lost or out of place, in the depth of the others.
TEST(DecodedRows, AreThoseOfTheWholeImage) {
  const Folder folder;
  Image image = test::NoiseImage(7, 9, 3, 8);
  for (const unsigned bits : {0U, 12U}) {
    ImageRowSource source(image);
    RawPlanes raw(folder.Path("rows"));
    ImageRowSink file;
    DecodedRows rows(bits, &raw, &file);
    rows.Begin(image);
    Bytes piece(4 * RowBytes(image));
    for (const std::uint32_t count : {4U, 1U, 4U}) {
      source.Read(count, piece.data(), RowBytes(image));
      rows.Write(count, piece.data(), RowBytes(image));
    }
    rows.Finish();
    if (bits != 0) ChangeDepth(image, bits);
    test::ExpectSamePlanes(image, file.image);
    WriteRawPlanes(image, folder.Path("whole"));
    for (const char* part : {".c0.raw", ".c2.raw"}) {
      EXPECT_EQ(folder.Get(std::string("rows") + part), folder.Get(std::string("whole") + part));
    }
  }
}

FileOptions Options(std::vector<std::string> files, std::string folder = {}) {
  FileOptions options;
  options.files = std::move(files);
  options.outputDir = std::move(folder);
  options.jobs = 3;
  options.quiet = true;
  return options;
}

const TaskSettings kToKel{.ending = ".kel"};

TEST(Files, InputsAreMatchedWithOutputs) {
  std::vector<std::string> seen;
  const auto work = [&](const Task& task) {
    seen.push_back(task.input + ">" + task.output);
    return kDone;
  };
  EXPECT_EQ(RunTasks(Options({"a.png", "b"}), kToKel, work), kDone);
  EXPECT_EQ(seen.back(), "a.png>b");
  EXPECT_EQ(RunTasks(Options({"a.png"}), {.ending = ".kel", .outputOptional = true}, work), kDone);
  EXPECT_EQ(seen.back(), "a.png>");
  const Folder folder;
  const std::string made = folder.Path("new");
  EXPECT_EQ(RunTasks(Options({"d/a.b.png"}, made), kToKel, work), kDone);
  EXPECT_EQ(seen.back(), "d/a.b.png>" + made + "/a.b.kel");
  EXPECT_EQ(RunTasks(Options({"c.png", made}), kToKel, work), kDone) << "a folder as the output";
  EXPECT_EQ(seen.back(), "c.png>" + made + "/c.kel");
  EXPECT_THROW(RunTasks(Options({"a"}), kToKel, work), UsageError);
  EXPECT_THROW(RunTasks(Options({"a", "b", "c"}), kToKel, work), UsageError);
  EXPECT_EQ(seen.size(), 4U) << "nothing runs when the files do not match";
  testing::internal::CaptureStderr();
  EXPECT_EQ(RunTasks(Options({"a.png", "d/a.jpg", "e.jpg"}, made), kToKel, work), kBadOutput);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("kel: d/a.jpg: would become "),
            std::string::npos);
  EXPECT_EQ(seen.size(), 6U) << "one output would overwrite the other; the rest is done";
}

// A tree and a list of files; the tree's shape comes back, and a folder inside it that receives
// the outputs is not read.
TEST(Files, TreesAreMirroredAndListsRead) {
  const Folder folder;
  const std::string root = folder.Path("tree");
  std::filesystem::create_directories(root + "/sub/out");
  for (const char* name : {"/a.png", "/sub/a.png", "/sub/b.txt", "/sub/out/c.png"}) {
    folder.Put("tree" + std::string(name), "x");
  }
  folder.Put("list", std::string("x/one.png\0two words.png\0", 24));
  FileOptions options = Options({root}, root + "/sub/out");
  options.recursive = true;
  options.filesFrom = folder.Path("list");
  options.jobs = 1;
  std::string seen;
  const auto work = [&](const Task& task) {
    seen += std::filesystem::path(task.output).lexically_relative(root + "/sub/out").string() + " ";
    return kDone;
  };
  const TaskSettings settings{
      .ending = ".kel", .isInput = [](const std::string& name) { return name.ends_with(".png"); }};
  EXPECT_EQ(RunTasks(options, settings, work), kDone);
  EXPECT_EQ(seen, "a.kel sub/a.kel one.kel two words.kel ");
}

// Originals are what must never be lost, whatever they are called by.
TEST(Files, InputsAndWhatExistsAreKept) {
  const Folder folder;
  folder.Put("a.png", "original");
  folder.Put("b.png", "original too");
  ASSERT_EQ(symlink("a.png", folder.Path("link.png").c_str()), 0);
  std::filesystem::create_hard_link(folder.Path("b.png"), folder.Path("hard.kel"));
  folder.Put("old.kel", "old");
  const auto run = [&](FileOptions options, const std::string& ending) {
    testing::internal::CaptureStderr();
    const int code = RunTasks(options, {.ending = ending}, [](const Task& task) -> int {
      OutputFile file(task.output, task.onExisting);
      file.Write(kText);
      file.Finish();
      return kDone;
    });
    return std::to_string(code) + testing::internal::GetCapturedStderr();
  };
  const std::string a = folder.Path("a.png"), b = folder.Path("b.png"), here = folder.Path(".");
  const std::string old = folder.Path("old.kel"), fresh = folder.Path("old.x");
  EXPECT_NE(run(Options({a, folder.Path("link.png")}), "").find("is one of the inputs"),
            std::string::npos);
  FileOptions over = Options({a, b}, here);
  over.overwrite = true;
  EXPECT_EQ(run(over, ".png")[0], '4');
  EXPECT_EQ(run(Options({b, folder.Path("hard.kel")}), "")[0], '4');
  EXPECT_EQ(folder.Get("a.png") + folder.Get("b.png"), "originaloriginal too");

  FileOptions options = Options({folder.Path("old.png")}, here);
  EXPECT_EQ(run(options, ".kel"), "4kel: " + here +
                                      "/old.kel: exists; --overwrite replaces it, "
                                      "--skip-existing passes over it\n");
  options.skipExisting = true;
  EXPECT_EQ(run(options, ".kel"), "0");
  EXPECT_EQ(folder.Get("old.kel"), "old");
  options.skipExisting = false;
  options.overwrite = true;
  EXPECT_EQ(run(options, ".kel"), "0");
  EXPECT_EQ(folder.Get("old.kel"), "new");
  FileOptions single = Options({a, old});
  single.noOverwrite = true;
  EXPECT_EQ(run(single, "")[0], '4');
  EXPECT_EQ(run(Options({a, old}), "")[0], '0') << "a single explicit output is replaced";

  OutputFile late(fresh, OnExisting::kKeep);
  late.Write(kText);
  folder.Put("old.x", "somebody was faster");
  EXPECT_EQ(ErrorOf([&] { late.Finish(); }).Kind(), Failure::kOutput);
  EXPECT_EQ(folder.Get("old.x"), "somebody was faster");
}

TEST(Files, OneFailureDoesNotStopTheOthersAndIsReported) {
  const Folder folder;
  std::atomic<int> done{0};
  const auto work = [&](const Task& task) -> int {
    ++done;
    if (task.input == "2") throw Error(Failure::kMemory, "too large");
    if (task.input == "3") throw std::runtime_error("anything else");
    if (task.input == "4") task.Warn("odd");
    return task.input == "1" ? kIncompleteInput : kDone;
  };
  FileOptions options = Options({"1", "2", "3", "4"}, folder.Path("out"));
  options.jobs = 1;
  options.report = folder.Path("report");
  testing::internal::CaptureStderr();
  const int code = RunTasks(options, {.ending = ".kel"}, work);
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "kel: 2: too large; --max-memory SIZE raises the limit\nkel: 3: anything else\nkel: 4: odd\n"
      "kel: 2 of 4 files failed\n");
  EXPECT_EQ(done, 4);
  EXPECT_EQ(code, kMemoryLimit) << "the worst of all";
  std::istringstream lines(folder.Get("report"));
  std::string line, codes;
  while (std::getline(lines, line)) {
    const auto entry = nlohmann::json::parse(line);
    codes += std::to_string(int(entry["code"])) + (entry.contains("error") ? "e" : "") +
             (entry.contains("warnings") ? "w" : "");
  }
  EXPECT_EQ(codes, "35e2e0w");
}

TEST(Files, ExitCodesAndMessagesOfOneFile) {
  const auto run = [](Failure kind, const std::string& file) {
    testing::internal::CaptureStderr();
    const int code = RunTasks(Options({"in", "out"}), kToKel, [&](const Task&) -> int {
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
