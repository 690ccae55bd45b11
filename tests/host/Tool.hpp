// The built `kel` command, run by the shell in a folder of its own.
#ifndef TESTS_HOST_TOOL_HPP
#define TESTS_HOST_TOOL_HPP

#include <sys/wait.h>

#include "ImageFile.hpp"
#include "TestImages.hpp"
#include "ToolPlaces.h"

namespace test {

class Tool {
 public:
  struct Result {
    int code = 0;
    std::string out, err;
  };

  /// Runs "kel ARGUMENTS" inside the folder; ARGUMENTS are in the language of the shell, as is
  /// what stands before.
  Result Run(const std::string& arguments, const std::string& before = "") const {
    const std::string command = "cd '" + folder.Path("") + "' && { " + before + " '" + KEL_COMMAND +
                                "' " + arguments + "; } >'" + said_.Path("out") + "' 2>'" +
                                said_.Path("err") + "'";
    const int status = std::system(command.c_str());
    EXPECT_TRUE(WIFEXITED(status)) << arguments;
    return {WEXITSTATUS(status), said_.Get("out"), said_.Get("err")};
  }
  /// The same for what must succeed without a word of complaint.
  std::string Do(const std::string& arguments) const {
    const Result result = Run(arguments);
    EXPECT_EQ(result.code, 0) << arguments;
    EXPECT_EQ(result.err, "") << arguments;
    return result.out;
  }

  void Put(const std::string& name, const kel::host::Image& image) const {
    kel::host::FileSink sink(folder.Path(name));
    kel::tool::WriteImage(image, name, sink);
  }
  kel::host::Image GetImage(const std::string& name) const {
    const std::string text = folder.Get(name);
    return kel::tool::ReadImage(kel::host::Bytes(text.begin(), text.end()));
  }

  const Folder folder;

 private:
  const Folder said_;
};

}  // namespace test

#endif
