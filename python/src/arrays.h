#pragma once

// NumPy arrays as images and images as NumPy arrays.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <optional>
#include <string>

#include <kwqimage/Image.h>

namespace kwq::python {

namespace py = pybind11;

/// How a measure reads an image's bytes.
enum class Rows {
  /// Honours the row stride: a view of a larger array is wrapped in place.
  Strided,
  /// Addresses rows as if packed at width x bytes per pixel (the brightness and focus
  /// measures do): a view with padded rows is first packed into a copy.
  Packed,
};

/// The image an array shows, wrapping the array's memory where `rows` allows it (the image
/// keeps the array alive). `layout` is "gray", "rgb", "rgba" or "bgra" (premultiplied), or
/// none to take gray, RGB or BGRA from the channel count. Raises TypeError for anything but a
/// uint8 ndarray and ValueError for a bad shape, an empty array or a layout that does not fit.
Image imageFromArray(const py::handle& array, const std::optional<std::string>& layout,
                     Rows rows = Rows::Strided);

/// The image as an array of shape (H, W) or (H, W, C) that shares the image's bitmap (the
/// array keeps the image alive); None for the null image and an image without a bitmap.
/// `input` is the image the result came from: a result backed by the input's bitmap (hence by
/// the caller's array) is copied, so results never alias arguments.
py::object arrayFromImage(const Image& image, const Image* input = nullptr);

/// The layout named by "gray", "rgb", "rgba" or "bgra"; ValueError otherwise.
PixelLayout layoutFromName(const std::string& name);
const char* layoutName(PixelLayout layout);

}  // namespace kwq::python
