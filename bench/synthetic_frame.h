// The synthetic card scene's first frame as a 420f pixel buffer and as the OpenCV NV12 matrix
// holding the same bytes, shared by the benchmarks that measure frame steps against OpenCV.

#pragma once

#include <cstring>

#include <opencv2/imgproc.hpp>

#include "kwqimage/SampleBuffer.h"
#include "synthetic/renderer.h"

namespace kwq::bench {

struct SyntheticNv12 {
  PixelBuffer frame;  // 420f
  cv::Mat nv12;       // luma rows, then interleaved chroma rows
};

// Frame 0 of the default scene at width x height (even sizes).
inline SyntheticNv12 syntheticNv12(int width, int height) {
  synthetic::SceneRenderer scene(SyntheticScene::card(), static_cast<size_t>(width),
                                 static_cast<size_t>(height));
  cv::Mat bgra(height, width, CV_8UC4), bgr, yuv;
  scene.render(0, {}, bgra.data, bgra.step[0]);
  cv::cvtColor(bgra, bgr, cv::COLOR_BGRA2BGR);
  cv::cvtColor(bgr, yuv, cv::COLOR_BGR2YUV_I420);  // Y plane, then U and V planes
  SyntheticNv12 out;
  const size_t luma = static_cast<size_t>(width) * height;
  out.nv12.create(height * 3 / 2, width, CV_8UC1);
  std::memcpy(out.nv12.data, yuv.data, luma);
  const uint8_t* u = yuv.data + luma;
  const uint8_t* v = u + luma / 4;
  uint8_t* uv = out.nv12.data + luma;
  for (size_t i = 0; i < luma / 4; ++i) {
    uv[2 * i] = u[i];
    uv[2 * i + 1] = v[i];
  }
  out.frame = PixelBuffer::allocate(kPixelFormat420f, width, height);
  out.frame.lockBaseAddress();
  for (size_t plane = 0; plane < 2; ++plane) {
    const uint8_t* src = out.nv12.data + (plane ? luma : 0);
    for (size_t y = 0; y < out.frame.heightOfPlane(plane); ++y)
      std::memcpy(out.frame.baseAddressOfPlane(plane) + y * out.frame.bytesPerRowOfPlane(plane),
                  src + y * width, width);
  }
  out.frame.unlockBaseAddress();
  return out;
}

}  // namespace kwq::bench
