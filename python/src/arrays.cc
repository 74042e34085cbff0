#include "arrays.h"

#include <cstring>
#include <memory>

namespace kwq::python {

PixelLayout layoutFromName(const std::string& name) {
  if (name == "gray") return PixelLayout::Gray8;
  if (name == "rgb") return PixelLayout::RGB24;
  if (name == "rgba") return PixelLayout::RGBA32;
  if (name == "bgra") return PixelLayout::BGRA32Premultiplied;
  throw py::value_error("unknown layout '" + name + "': use 'gray', 'rgb', 'rgba' or 'bgra'");
}

const char* layoutName(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::Gray8:
      return "gray";
    case PixelLayout::RGB24:
      return "rgb";
    case PixelLayout::RGBA32:
      return "rgba";
    case PixelLayout::BGRA32Premultiplied:
      return "bgra";
  }
  return "gray";
}

namespace {

std::string shapeText(const py::array& a) {
  std::string text = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) {
    if (i) text += ", ";
    text += std::to_string(a.shape(i));
  }
  return text + (a.ndim() == 1 ? ",)" : ")");
}

// True when `bytes` bytes from `data` lie inside the memory of the array that `a` is a view
// of: a view's last row may end before its row stride does, and the image reads whole rows.
bool ownerCovers(const py::array& a, const uint8_t* data, size_t bytes) {
  py::object owner = py::reinterpret_borrow<py::object>(a);
  while (true) {
    py::object base = owner.attr("base");
    if (base.is_none() || !py::isinstance<py::array>(base)) break;
    owner = base;
  }
  const auto root = py::reinterpret_borrow<py::array>(owner);
  // The first array of the chain exposes its whole memory block (whoever owns it: NumPy, a
  // capsule, a buffer); its extent is known when it is C-ordered.
  if (!(root.flags() & py::array::c_style)) return false;
  const auto* begin = static_cast<const uint8_t*>(root.data());
  const auto* end = begin + root.nbytes();
  return data >= begin && data + bytes <= end;
}

}  // namespace

Image imageFromArray(const py::handle& object, const std::optional<std::string>& layoutName,
                     Rows rows) {
  if (!py::isinstance<py::array>(object))
    throw py::type_error(std::string("expected an image as a NumPy uint8 array, got ") +
                         std::string(py::str(py::type::of(object).attr("__name__"))));
  auto a = py::reinterpret_borrow<py::array>(object);
  if (!a.dtype().is(py::dtype::of<uint8_t>()))
    throw py::type_error("image arrays must have dtype uint8, got " +
                         std::string(py::str(a.dtype())));
  if (a.ndim() != 2 && a.ndim() != 3)
    throw py::value_error("an image array has shape (H, W) or (H, W, C), got " + shapeText(a));
  const py::ssize_t channels = a.ndim() == 3 ? a.shape(2) : 1;
  if (channels != 1 && channels != 3 && channels != 4)
    throw py::value_error("an image array has 1, 3 or 4 channels, got shape " + shapeText(a));
  if (a.shape(0) == 0 || a.shape(1) == 0)
    throw py::value_error("image array is empty: shape " + shapeText(a));

  PixelLayout layout = channels == 1   ? PixelLayout::Gray8
                       : channels == 3 ? PixelLayout::RGB24
                                       : PixelLayout::BGRA32Premultiplied;
  if (layoutName) {
    layout = layoutFromName(*layoutName);
    if (static_cast<py::ssize_t>(bytesPerPixel(layout)) != channels)
      throw py::value_error("layout '" + *layoutName + "' needs " +
                            std::to_string(bytesPerPixel(layout)) +
                            " channels, the array has shape " + shapeText(a));
  }

  const auto height = static_cast<size_t>(a.shape(0));
  const auto width = static_cast<size_t>(a.shape(1));
  const size_t rowBytes = width * static_cast<size_t>(channels);
  const py::ssize_t rowStride = a.strides(0);
  const bool pixelsPacked = (a.ndim() == 2 || a.strides(2) == 1) &&
                            (a.strides(1) == channels || width == 1) &&
                            (rowStride > 0 || height == 1);
  const size_t stride = height == 1 ? rowBytes : static_cast<size_t>(rowStride);
  bool wrap = pixelsPacked && stride >= rowBytes;
  if (wrap && stride != rowBytes) {
    wrap = rows == Rows::Strided &&
           ownerCovers(a, static_cast<const uint8_t*>(a.data()), stride * height);
  }
  if (!wrap) {
    // Packs the pixels into a fresh C-ordered array and wraps that instead.
    a = py::array_t<uint8_t, py::array::c_style | py::array::forcecast>::ensure(a);
    if (!a) throw py::error_already_set();
  }
  const size_t bytesPerRow = wrap ? stride : rowBytes;
  auto* keep = new py::object(a);
  Image image = Image::wrapBytes(layout, width, height, bytesPerRow,
                                 static_cast<const uint8_t*>(a.data()), [keep] {
                                   // The last handle may go on a thread without the GIL.
                                   if (!Py_IsInitialized()) return;  // leaked at exit
                                   py::gil_scoped_acquire gil;
                                   delete keep;
                                 });
  if (image.isNull()) {
    delete keep;
    throw py::value_error("image array of shape " + shapeText(a) + " cannot be used");
  }
  return image;
}

py::object arrayFromImage(const Image& result, const Image* input) {
  if (result.isNull() || !result.hasBitmap()) return py::none();
  Image image = result;
  if (input && image.sharesBitmapWith(*input)) {
    image = Image::copyFromBytes(image.layout(), image.width(), image.height(), image.bytesPerRow(),
                                 image.bytes().data());
    if (image.isNull()) throw std::bad_alloc();
  }
  const auto channels = static_cast<py::ssize_t>(bytesPerPixel(image.layout()));
  std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(image.height()),
                                 static_cast<py::ssize_t>(image.width())};
  std::vector<py::ssize_t> strides{static_cast<py::ssize_t>(image.bytesPerRow()), channels};
  if (channels > 1) {
    shape.push_back(channels);
    strides.push_back(1);
  }
  auto* owner = new Image(image);
  py::capsule capsule(owner, [](void* p) { delete static_cast<Image*>(p); });
  // The capsule is the image's only other handle, so the array may be written.
  return py::array(py::dtype::of<uint8_t>(), shape, strides,
                   const_cast<uint8_t*>(image.bytes().data()), capsule);
}

}  // namespace kwq::python
