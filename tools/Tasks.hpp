// Matching inputs with outputs: which files a command line names, and where their results go.
#ifndef KEL_TOOLS_TASKS_HPP
#define KEL_TOOLS_TASKS_HPP

#include <vector>

#include "Files.hpp"

namespace kel::tool {

/// A file to work on, or the reason why it cannot be worked on.
struct PlannedTask {
  Task task;
  std::string refusal;  ///< empty when there is none
  int code = kDone;     ///< of the refusal
  bool skip = false;    ///< its output exists and is to stay
};

struct TaskPlan {
  std::vector<PlannedTask> tasks;
  bool isBatch = false;  ///< outputs go to a folder under names of their own
};

/// Reads folders and lists, names the outputs, and protects all inputs from being written to.
/// Throws UsageError for a command line that contradicts itself, and Error (kInput) for a list of
/// files that cannot be read.
TaskPlan PlanTasks(const FileOptions& options, const TaskSettings& settings);

}  // namespace kel::tool

#endif
