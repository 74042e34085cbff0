#include <opencv2/core/utility.hpp>

#include "kwqimage/Threads.h"

namespace kwq {

void setImagingThreadCount(int count) {
  // OpenCV takes a negative count as "the default"; 0 would mean "no parallel region at all",
  // which is what 1 means to callers here.
  cv::setNumThreads(count <= 0 ? -1 : count);
}

int imagingThreadCount() {
  return cv::getNumThreads();
}

}  // namespace kwq
