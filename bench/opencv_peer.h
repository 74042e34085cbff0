// The plain OpenCV recipe a user would write to find quadrilaterals in a camera frame: the
// peer both the rectangle detector and the whole frame step are measured against.

#pragma once

#include <opencv2/imgproc.hpp>

#include <vector>

namespace kwq::bench {

// Scratch buffers kept across iterations, as a user's loop would keep them.
struct QuadRecipeScratch {
  cv::Mat gray, edges;
  std::vector<std::vector<cv::Point>> contours;
  std::vector<cv::Point> poly;
};

// cvtColor NV12 to gray, Canny, findContours, approxPolyDP at full size; returns the number of
// convex quadrilaterals found.
inline int findQuadsPeer(const cv::Mat& nv12, QuadRecipeScratch& s) {
  cv::cvtColor(nv12, s.gray, cv::COLOR_YUV2GRAY_NV12);
  cv::Canny(s.gray, s.edges, 50, 150);
  cv::findContours(s.edges, s.contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
  int quads = 0;
  for (const auto& contour : s.contours) {
    cv::approxPolyDP(contour, s.poly, 0.02 * cv::arcLength(contour, true), true);
    quads += s.poly.size() == 4 && cv::isContourConvex(s.poly);
  }
  return quads;
}

}  // namespace kwq::bench
