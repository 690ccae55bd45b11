// Making the state of an image object, and its progress reports.
#include "image/KelImageState.h"

#include "base/KelMemFuncDefs.h"

namespace kel {

void BeginProgress(ProgressState& progress, KelLong total) {
  if (progress.actions == nullptr || progress.isActive) return;
  progress.done = 0;
  progress.total = total;
  progress.isActive = true;
  if (progress.actions->BeginProgress != nullptr) progress.actions->BeginProgress();
}

void StepProgress(ProgressState& progress, KelLong steps) {
  if (!progress.isActive || progress.total < steps) return;
  if (progress.done <= progress.total && progress.actions->ReportProgress != nullptr) {
    progress.actions->ReportProgress(progress.done, progress.total);
  }
  if (progress.done < INT32_MAX) ++progress.done;
}

void EndProgress(ProgressState& progress) {
  if (!progress.isActive) return;
  progress.isActive = false;
  progress.done = 0;
  if (progress.actions->ReportProgress != nullptr) {
    progress.actions->ReportProgress(progress.total, progress.total);
  }
  if (progress.actions->EndProgress != nullptr) progress.actions->EndProgress();
}

ImageState& EnsureState(ImageHandle*& handle) {
  if (StateOf(handle) != nullptr) return *handle->state;
  auto made = OwnedRecord<ImageHandle>::Make();
  made->state = OwnedRecord<ImageState>::Make().Release();
  made->state->failure.Clear();
  if (handle != nullptr) KelFree(handle);
  handle = made.Release();
  return *handle->state;
}

}  // namespace kel
