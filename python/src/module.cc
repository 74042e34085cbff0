// The kwqimage Python module: the library's measures, conversions, geometry, detectors, PNG
// store, recorder and capture engine over NumPy arrays.
//
// Every call that does real work releases the GIL while the library runs; images made from
// arrays keep those arrays alive, so another Python thread can neither free the memory nor be
// blocked meanwhile.

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <kwqimage/KWQImage.h>

#include "arrays.h"
#include "engine.h"

namespace py = pybind11;
using namespace py::literals;

namespace kwq::python {
namespace {

using Layout = std::optional<std::string>;
using RectTuple = std::array<double, 4>;
using PointTuple = std::array<double, 2>;

Rect toRect(const RectTuple& r) {
  return Rect(r[0], r[1], r[2], r[3]);
}
RectTuple fromRect(const Rect& r) {
  return {r.origin.x, r.origin.y, r.size.width, r.size.height};
}
PointTuple fromPoint(const Point& p) {
  return {p.x, p.y};
}
Point toPoint(const PointTuple& p) {
  return Point{p[0], p[1]};
}
Size toSize(const PointTuple& s) {
  return Size{s[0], s[1]};
}

// Runs `f` without the GIL.
template <typename F>
auto nogil(F&& f) {
  py::gil_scoped_release release;
  return f();
}

// A function of one image that returns an image, as a Python function of an array.
template <typename F>
py::object imageToImage(const py::handle& array, const Layout& layout, F&& f,
                        Rows rows = Rows::Strided) {
  const Image in = imageFromArray(array, layout, rows);
  const Image out = nogil([&] { return f(in); });
  return arrayFromImage(out, &in);
}

// The decoded file in the layout asked for: "auto" keeps gray files gray and gives colour
// files as premultiplied BGRA, the layout of camera frames, which is how the capture engine
// and the kwq tool measure them; None keeps the decoder's layout (gray, RGB or RGBA).
Image inLayout(const Image& image, const Layout& layout) {
  if (image.isNull() || !layout) return image;
  if (*layout == "auto")
    return image.layout() == PixelLayout::Gray8 ? image
                                                : image.converted(PixelLayout::BGRA32Premultiplied);
  const PixelLayout wanted = layoutFromName(*layout);
  return image.layout() == wanted ? image : image.converted(wanted);
}

std::vector<std::string> codeTypes(const std::vector<std::string>& names) {
  std::vector<std::string> types;
  for (const std::string& name : names) {
    if (name == "pdf417" || name == AVMetadataObjectTypePDF417Code)
      types.emplace_back(AVMetadataObjectTypePDF417Code);
    else if (name == "qr" || name == AVMetadataObjectTypeQRCode)
      types.emplace_back(AVMetadataObjectTypeQRCode);
    else
      throw py::value_error("unknown code type '" + name + "': use 'pdf417' or 'qr'");
  }
  return types;
}

// The 480 x 640 raster the two-pi assessment reads, as given: the C functions address it at a
// fixed 640-byte stride, so nothing but a C-ordered uint8 array of that shape is accepted.
const uint8_t* rasterFromArray(const py::array& a) {
  if (!a.dtype().is(py::dtype::of<uint8_t>()))
    throw py::type_error("the raster must have dtype uint8, got " +
                         std::string(py::str(a.dtype())));
  if (a.ndim() != 2 || a.shape(0) != KWQ_ASSESSMENT_RASTER_HEIGHT ||
      a.shape(1) != KWQ_ASSESSMENT_RASTER_WIDTH)
    throw py::value_error("the raster must have shape (480, 640)");
  if (!(a.flags() & py::array::c_style))
    throw py::value_error(
        "the raster must be C-contiguous (rows 640 bytes apart); use numpy.ascontiguousarray");
  return static_cast<const uint8_t*>(a.data());
}

py::object padImageArray(const py::handle& array, const Layout& layout) {
  const Image in = imageFromArray(array, layout, Rows::Packed);
  uint8_t* raster = nogil([&] { return padImage(in); });
  if (!raster) throw std::bad_alloc();
  py::capsule owner(raster, [](void* p) { std::free(p); });
  return py::array(
      py::dtype::of<uint8_t>(),
      std::vector<py::ssize_t>{KWQ_ASSESSMENT_RASTER_HEIGHT, KWQ_ASSESSMENT_RASTER_WIDTH},
      std::vector<py::ssize_t>{KWQ_ASSESSMENT_RASTER_WIDTH, 1}, raster, owner);
}

void defineImages(py::module_& m) {
  m.def("set_imaging_threads", &setImagingThreadCount, py::arg("count"),
        "Threads one image operation may use (1 or more; 0: one per core), process-wide. A batch "
        "running one process per core sets 1.");
  m.def("imaging_threads", &imagingThreadCount, "Threads one image operation may use now.");
  m.def(
      "load_image",
      [](const std::string& path, const Layout& layout) {
        Image image = nogil([&] { return inLayout(Image::loadFile(path), layout); });
        if (image.isNull()) {
          if (::access(path.c_str(), R_OK) != 0) {
            PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
            throw py::error_already_set();
          }
          throw py::value_error("cannot decode the image file '" + path + "'");
        }
        return arrayFromImage(image);
      },
      "path"_a, "layout"_a = "auto",
      "Reads and decodes an image file (PNG, JPEG, ...).\n\n"
      "layout: 'auto' (gray files as (H, W) gray, colour files as (H, W, 4) premultiplied\n"
      "BGRA, as camera frames are measured), 'gray', 'rgb', 'rgba', 'bgra', or None for the\n"
      "decoder's own layout. Raises OSError when the file cannot be read and ValueError when\n"
      "it cannot be decoded.");
  m.def(
      "decode_image",
      [](const py::bytes& data, const Layout& layout) {
        const std::string_view bytes = data;
        Image image = nogil([&] {
          return inLayout(
              Image::decode(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), layout);
        });
        if (image.isNull()) throw py::value_error("cannot decode the image data");
        return arrayFromImage(image);
      },
      "data"_a, "layout"_a = "auto", "Decodes image file data; layouts as for load_image.");
  m.def(
      "convert",
      [](const py::handle& a, const std::string& to, const Layout& layout) {
        const PixelLayout wanted = layoutFromName(to);
        return imageToImage(a, layout, [&](const Image& in) { return in.converted(wanted); });
      },
      "image"_a, "to"_a, py::kw_only(), "layout"_a = py::none(),
      "The image in another layout ('gray', 'rgb', 'rgba' or 'bgra'; colour to gray with the\n"
      "BT.601 weights, alpha premultiplied or divided out as the layouts require).");
  // For tests of the in-place promise: where the image made of an array keeps its bytes.
  m.def(
      "_image_address",
      [](const py::handle& a, bool packedRows) {
        const Image in = imageFromArray(a, std::nullopt, packedRows ? Rows::Packed : Rows::Strided);
        return reinterpret_cast<uintptr_t>(in.bytes().data());
      },
      "image"_a, "packed_rows"_a = false);
  // For the overhead benchmark: `n` calls of the C++ measure on the image of `a`, in this
  // process, on the same memory; seconds in all.
  m.def(
      "_cpp_calculate_focus_loop",
      [](const py::handle& a, int n) {
        const Image in = imageFromArray(a, std::nullopt, Rows::Packed);
        return nogil([&] {
          volatile int32_t sink = 0;
          const auto start = std::chrono::steady_clock::now();
          for (int i = 0; i < n; ++i) sink = calculateFocus(in);
          (void)sink;
          return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        });
      },
      "image"_a, "n"_a);
  m.def(
      "png_data",
      [](const py::handle& a, const Layout& layout) {
        const Image in = imageFromArray(a, layout);
        const std::vector<uint8_t> data = nogil([&] { return in.pngData(); });
        return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
      },
      "image"_a, py::kw_only(), "layout"_a = py::none(),
      "PNG data of the image (BGRA is stored as RGBA with straight alpha).");
  m.def(
      "write_png",
      [](const py::handle& a, const std::string& path, const Layout& layout) {
        const Image in = imageFromArray(a, layout);
        return nogil([&] { return in.writePNG(path); });
      },
      "image"_a, "path"_a, py::kw_only(), "layout"_a = py::none(),
      "Writes the image as PNG, atomically (readers see the old file or the whole new one).\n"
      "False when the file cannot be written.");
}

void defineMeasures(py::module_& m) {
  m.def(
      "calculate_focus",
      [](const py::handle& a, const Layout& layout) {
        const Image in = imageFromArray(a, layout, Rows::Packed);
        return nogil([&] { return calculateFocus(in); });
      },
      "image"_a, py::kw_only(), "layout"_a = py::none(),
      "Two-pi focus score 0..100 (higher is sharper). Gray images are fitted to 640 x 480,\n"
      "colour images halved through the (R + 4 G) / 5 gray of BGRA bytes and cut to 640 x 480.");
  m.def(
      "calculate_focus_score",
      [](const py::handle& a, int32_t distance, int32_t step, int32_t edgePercent,
         const Layout& layout) {
        const Image in = imageFromArray(a, layout, Rows::Packed);
        return nogil([&] { return calculateFocusScore(in, distance, step, edgePercent); });
      },
      "image"_a, "distance"_a = 1, "step"_a = 1, "edge_percent"_a = 10, py::kw_only(),
      "layout"_a = py::none(),
      "Focus quality score 0..100: 3 x the root mean squared difference between gray pixels\n"
      "`distance` apart along rows, every `step` pixels, less `edge_percent` % at each border.");
  m.def(
      "calculate_brightness",
      [](const py::handle& a, const Layout& layout) {
        const Image in = imageFromArray(a, layout, Rows::Packed);
        return nogil([&] { return calculateBrightness(in); });
      },
      "image"_a, py::kw_only(), "layout"_a = py::none(),
      "Mean byte of a sparse grid (every min(width, 10)-th row and column) less a 20-pixel\n"
      "border, the bytes addressed as one-byte pixels.");
  m.def(
      "calculate_brightness",
      [](const py::handle& a, int32_t bytesPerPixel, int32_t edgePercent, const Layout& layout) {
        const Image in = imageFromArray(a, layout, Rows::Packed);
        return nogil([&] { return calculateBrightness(in, bytesPerPixel, edgePercent); });
      },
      "image"_a, "bytes_per_pixel"_a, "edge_percent"_a, py::kw_only(), "layout"_a = py::none(),
      "Mean of byte 1 of each sampled pixel (byte 0 for one- and two-byte pixels) less\n"
      "`edge_percent` % at each border (outside 0..99 means 0).");
  m.def(
      "calculate_brightness",
      [](const py::handle& a, const RectTuple& rect, const Layout& layout) {
        const Image in = imageFromArray(a, layout, Rows::Packed);
        return nogil([&] { return calculateBrightness(in, toRect(rect)); });
      },
      "image"_a, "rect"_a, py::kw_only(), "layout"_a = py::none(),
      "Mean byte inside rect = (x, y, width, height), both ends inclusive. The rectangle must\n"
      "lie inside (0, 0, image height, image width) (height and width trade places in this\n"
      "test); 0 when it does not.");
  m.def(
      "is_gray_scale",
      [](const py::handle& a, const Layout& layout) {
        return isGrayScale(imageFromArray(a, layout));
      },
      "image"_a, py::kw_only(), "layout"_a = py::none(), "True for a gray image.");
  m.def(
      "make_gray_scale",
      [](const py::handle& a, const Layout& layout) {
        return imageToImage(a, layout, [](const Image& in) { return makeGrayScale(in); });
      },
      "image"_a, py::kw_only(), "layout"_a = py::none(), "The image drawn in 8-bit gray.");
  m.def(
      "make_gray_scale_and_scale",
      [](const py::handle& a, int32_t factor, const Layout& layout) {
        return imageToImage(
            a, layout, [factor](const Image& in) { return makeGrayScaleAndScale(in, factor); });
      },
      "image"_a, "factor"_a, py::kw_only(), "layout"_a = py::none(),
      "For factor < 2 make_gray_scale; otherwise the image reduced by `factor`, each byte\n"
      "(R + 4 G) / 20 over four pixels of each cell (G byte 1, R byte 2 of BGRA).");
  m.def(
      "scale_image",
      [](const py::handle& a, const Layout& layout) {
        return imageToImage(a, layout, [](const Image& in) { return scaleImage(in); });
      },
      "image"_a, py::kw_only(), "layout"_a = py::none(),
      "The image scaled, aspect kept, to touch 640 x 480 from inside.");
  m.def("pad_image", &padImageArray, "image"_a, py::kw_only(), "layout"_a = py::none(),
        "The (480, 640) assessment raster: the image's bytes as gray rows, centred on mid-gray.");
  m.def(
      "two_pi_focus_assess",
      [](const py::array& raster) {
        const uint8_t* r = rasterFromArray(raster);
        return nogil([&] { return TwoPiFocusAssess(r); });
      },
      "raster"_a, "The focus score of a (480, 640) C-contiguous uint8 raster.");
  m.def(
      "image_assess",
      [](const py::array& raster) {
        ImageAssessSource source{rasterFromArray(raster)};
        ImageAssessResult result{};
        nogil([&] {
          ImageAssess(&source, &result);
          return 0;
        });
        return py::dict("center_surround_score"_a = result.centerSurroundScore,
                        "focus_score"_a = result.focusScore,
                        "row_alternation_score"_a = result.rowAlternationScore);
      },
      "raster"_a, "The three scores of a (480, 640) C-contiguous uint8 raster.");
}

void defineGeometry(py::module_& m) {
  m.def("degrees_to_radians", &DegreesToRadians, "degrees"_a);
  m.def("radians_to_degrees", &RadiansToDegrees, "radians"_a);
  m.def(
      "resize_to_size",
      [](const py::handle& a, const PointTuple& size, const Layout& layout) {
        return imageToImage(a, layout,
                            [&](const Image& in) { return resizeToSize(in, toSize(size)); });
      },
      "image"_a, "size"_a, py::kw_only(), "layout"_a = py::none(),
      "The image drawn into a BGRA canvas of exactly size = (width, height).");
  m.def(
      "crop_image_at_coordinates",
      [](const py::handle& a, const RectTuple& rect, float padding,
         const std::optional<PointTuple>& viewSize, const Layout& layout) {
        return imageToImage(a, layout, [&](const Image& in) {
          return viewSize ? cropImageAtCoordinates(in, toRect(rect), padding, toSize(*viewSize))
                          : cropImageAtCoordinates(in, toRect(rect), padding);
        });
      },
      "image"_a, "rect"_a, "padding_percent"_a = 0.0f, "view_size"_a = py::none(), py::kw_only(),
      "layout"_a = py::none(),
      "A crop in bitmap pixels, grown by padding_percent, never from row or column 0; or,\n"
      "with view_size, a crop in the coordinates of a view of that size showing the image.");
  m.def(
      "rotated_by_angle",
      [](const py::handle& a, double degrees, const Layout& layout) {
        return imageToImage(a, layout,
                            [&](const Image& in) { return rotatedByAngle(in, degrees); });
      },
      "image"_a, "degrees"_a, py::kw_only(), "layout"_a = py::none(),
      "The image turned counter-clockwise as seen, on its rotated bounding box.");
  m.def(
      "image_at_rect",
      [](const py::handle& a, const RectTuple& rect, const Layout& layout) {
        return imageToImage(a, layout,
                            [&](const Image& in) { return imageAtRect(in, toRect(rect)); });
      },
      "image"_a, "rect"_a, py::kw_only(), "layout"_a = py::none(),
      "The part of the image inside rect, cut at the edges.");
  m.def(
      "image_by_scaling_proportionally_to_minimum_size",
      [](const py::handle& a, const PointTuple& size, const Layout& layout) {
        return imageToImage(a, layout, [&](const Image& in) {
          return imageByScalingProportionallyToMinimumSize(in, toSize(size));
        });
      },
      "image"_a, "size"_a, py::kw_only(), "layout"_a = py::none(),
      "The image scaled to cover size, centred, the overflow cut.");
  m.def(
      "image_by_scaling_proportionally_to_size",
      [](const py::handle& a, const PointTuple& size, const Layout& layout) {
        return imageToImage(a, layout, [&](const Image& in) {
          return imageByScalingProportionallyToSize(in, toSize(size));
        });
      },
      "image"_a, "size"_a, py::kw_only(), "layout"_a = py::none(),
      "The image scaled to fit inside size, centred, the margin transparent.");
  m.def(
      "image_by_scaling_to_size",
      [](const py::handle& a, const PointTuple& size, const Layout& layout) {
        return imageToImage(
            a, layout, [&](const Image& in) { return imageByScalingToSize(in, toSize(size)); });
      },
      "image"_a, "size"_a, py::kw_only(), "layout"_a = py::none(), "The image stretched to size.");
  m.def(
      "image_rotated_by_degrees",
      [](const py::handle& a, double degrees, const Layout& layout) {
        return imageToImage(a, layout,
                            [&](const Image& in) { return imageRotatedByDegrees(in, degrees); });
      },
      "image"_a, "degrees"_a, py::kw_only(), "layout"_a = py::none(),
      "The image turned clockwise as seen, on a BGRA canvas of its rotated bounding box.");
  m.def(
      "image_rotated_by_radians",
      [](const py::handle& a, double radians, const Layout& layout) {
        return imageToImage(a, layout,
                            [&](const Image& in) { return imageRotatedByRadians(in, radians); });
      },
      "image"_a, "radians"_a, py::kw_only(), "layout"_a = py::none(),
      "image_rotated_by_degrees with the angle in radians.");
}

void defineDetectors(py::module_& m) {
  py::class_<KWQFaceFeatures>(m, "FaceFeatures", "The largest face of an image, in pixels.")
      .def_property_readonly("face_rect",
                             [](const KWQFaceFeatures& f) { return fromRect(f.faceRect); })
      .def_property_readonly("left_eye",
                             [](const KWQFaceFeatures& f) { return fromPoint(f.leftEye); })
      .def_property_readonly("right_eye",
                             [](const KWQFaceFeatures& f) { return fromPoint(f.rightEye); })
      .def_property_readonly("mouth", [](const KWQFaceFeatures& f) { return fromPoint(f.mouth); })
      .def_readonly("face_angle", &KWQFaceFeatures::faceAngle)
      .def_readonly("has_smile", &KWQFaceFeatures::hasSmile)
      .def_readonly("left_eye_closed", &KWQFaceFeatures::leftEyeClosed)
      .def_readonly("right_eye_closed", &KWQFaceFeatures::rightEyeClosed)
      .def_readonly("features_found", &KWQFaceFeatures::featuresFound)
      .def("__repr__", [](const KWQFaceFeatures& f) {
        return "FaceFeatures(face_rect=" + std::string(py::repr(py::cast(fromRect(f.faceRect)))) +
               ", features_found=" + std::to_string(f.featuresFound) + ")";
      });
  m.def(
      "get_kwq_face_features_with_accuracy",
      [](const py::handle& a, int64_t accuracy, const Layout& layout) {
        const Image in = imageFromArray(a, layout);
        return nogil([&] { return getKWQFaceFeaturesWithAccuracy(in, accuracy); });
      },
      "image"_a, "accuracy"_a = 1, py::kw_only(), "layout"_a = py::none(),
      "The largest face with its eyes and mouth (origin top left); accuracy 0 searches fast,\n"
      "any other value thoroughly. face_rect is (0, 0, 0, 0) when there is no face.");
  m.def(
      "draw_facial_locations",
      [](const py::handle& a, const PointTuple& leftEye, const PointTuple& rightEye,
         const PointTuple& mouth, const RectTuple& faceBox, const Layout& layout) {
        return imageToImage(a, layout, [&](const Image& in) {
          return drawFacialLocationsLeftEye(in, toPoint(leftEye), toPoint(rightEye), toPoint(mouth),
                                            toRect(faceBox));
        });
      },
      "image"_a, "left_eye"_a, "right_eye"_a, "mouth"_a, "face_box"_a, py::kw_only(),
      "layout"_a = py::none(),
      "A BGRA copy with red, blue and green squares on the eyes and mouth and a yellow box.");

  py::class_<DetectedRectangle>(m, "Rectangle",
                                "A quadrilateral in pixels, origin top left, corners clockwise.")
      .def_property_readonly("top_left",
                             [](const DetectedRectangle& r) { return fromPoint(r.topLeft); })
      .def_property_readonly("top_right",
                             [](const DetectedRectangle& r) { return fromPoint(r.topRight); })
      .def_property_readonly("bottom_right",
                             [](const DetectedRectangle& r) { return fromPoint(r.bottomRight); })
      .def_property_readonly("bottom_left",
                             [](const DetectedRectangle& r) { return fromPoint(r.bottomLeft); })
      .def_property_readonly("corners",
                             [](const DetectedRectangle& r) {
                               return std::array<PointTuple, 4>{
                                   fromPoint(r.topLeft), fromPoint(r.topRight),
                                   fromPoint(r.bottomRight), fromPoint(r.bottomLeft)};
                             })
      .def_property_readonly("bounds",
                             [](const DetectedRectangle& r) { return fromRect(r.bounds); })
      .def("__repr__", [](const DetectedRectangle& r) {
        return "Rectangle(bounds=" + std::string(py::repr(py::cast(fromRect(r.bounds)))) + ")";
      });
  m.def(
      "detect_rectangles",
      [](const py::handle& a, bool highAccuracy, double aspectRatio, double focalLength,
         int maxCount, const Layout& layout) {
        const Image in = imageFromArray(a, layout);
        const RectangleSearch search{highAccuracy, aspectRatio, focalLength, maxCount};
        return nogil([&] { return detectRectangles(in, search); });
      },
      "image"_a, py::kw_only(), "high_accuracy"_a = true, "aspect_ratio"_a = kCardAspectRatio,
      "focal_length"_a = 0.0, "max_count"_a = 1, "layout"_a = py::none(),
      "The most prominent rectangles (cards, sheets), most prominent first; rectangles near\n"
      "aspect_ratio (width over height, either way up) rank first.");

  py::class_<DetectedCode>(m, "Code", "A PDF417 or QR code found in an image.")
      .def_readonly("type", &DetectedCode::type)
      .def_readonly("text", &DetectedCode::text)
      .def_property_readonly("corners",
                             [](const DetectedCode& c) {
                               return std::array<PointTuple, 4>{
                                   fromPoint(c.corners[0]), fromPoint(c.corners[1]),
                                   fromPoint(c.corners[2]), fromPoint(c.corners[3])};
                             })
      .def("__repr__", [](const DetectedCode& c) {
        return "Code(type=" + std::string(py::repr(py::cast(c.type))) +
               ", text=" + std::string(py::repr(py::cast(c.text))) + ")";
      });
  m.def(
      "read_codes",
      [](const py::handle& a, const std::vector<std::string>& types, const Layout& layout) {
        const Image in = imageFromArray(a, layout);
        const std::vector<std::string> wanted = codeTypes(types);
        return nogil([&] { return readCodesInImage(in, wanted); });
      },
      "image"_a, "types"_a = std::vector<std::string>{"pdf417", "qr"}, py::kw_only(),
      "layout"_a = py::none(),
      "The PDF417 and QR codes in the image: type, text (None for binary content) and corners\n"
      "in pixels: the code's own bottom left, bottom right, top right, top left.");
}

void defineStore(py::module_& m) {
  py::class_<KWQImageDictionary>(m, "ImageDictionary",
                                 "PNG files '<name>.png' in the documents folder.")
      .def_static(
          "save_image_as_png",
          [](const py::handle& a, const std::string& name, const Layout& layout) {
            const Image in = imageFromArray(a, layout);
            return nogil([&] { return KWQImageDictionary::saveImageAsPNG(in, name); });
          },
          "image"_a, "file_name"_a, py::kw_only(), "layout"_a = py::none(),
          "Writes the image as '<file_name>.png', atomically; False on failure.")
      .def_static(
          "load_image_with_file_name",
          [](const std::string& name, const Layout& layout) {
            Image image = nogil(
                [&] { return inLayout(KWQImageDictionary::loadImageWithFileName(name), layout); });
            return arrayFromImage(image);
          },
          "file_name"_a, "layout"_a = py::none(),
          "The image of '<file_name>.png', or None when missing or undecodable.")
      .def_static(
          "delete_image_with_file_name",
          [](const std::string& name, const std::string& extension) {
            nogil([&] {
              KWQImageDictionary::deleteImageWithFileName(name, extension);
              return 0;
            });
          },
          "file_name"_a, "file_extension"_a,
          "Removes '<name>.<extension>'; with name '*' every entry with that extension ('*':\n"
          "every entry).")
      .def_static("documents_directory", &KWQImageDictionary::documentsDirectory)
      .def_static("set_documents_directory", &KWQImageDictionary::setDocumentsDirectory, "path"_a);
}

void defineRecorder(py::module_& m) {
  // The process's recorder; the engine feeds it when started with record=True.
  auto r = m.def_submodule("recorder", "The camera data recorder (one per process).");
  r.def("is_recording", [] { return KWQCameraRollHelper::getInstance().isRecording(); });
  r.def("camera_data_counter",
        [] { return KWQCameraRollHelper::getInstance().cameraDataCounter(); });
  r.def("camera_data_folder_path",
        [] { return KWQCameraRollHelper::getInstance().getCameraDataFolderPath(); });
  r.def("camera_data_file_path",
        [] { return KWQCameraRollHelper::getInstance().getCameraDataFilePath(); });
  r.def("video_file_path", [] { return KWQCameraRollHelper::getInstance().videoFilePath(); });
  r.def(
      "save_image_to_camera_roll",
      [](const py::handle& a, const std::string& description, const Layout& layout) {
        const Image in = imageFromArray(a, layout);
        nogil([&] {
          KWQCameraRollHelper::getInstance().saveImageToCameraRoll(in, description);
          return 0;
        });
      },
      "image"_a, "description"_a = "", py::kw_only(), "layout"_a = py::none(),
      "Saves a PNG copy of the image to the photo library (asynchronously).");
  r.def(
      "wait_for_pending_saves",
      [](double seconds) {
        return nogil([&] {
          return KWQCameraRollHelper::getInstance().waitForPendingSaves(
              std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000)));
        });
      },
      "timeout"_a = 60.0, "Waits for movie and image saves under way; True when all finished.");
  r.def("photo_library_directory", &KWQCameraRollHelper::photoLibraryDirectory);
  r.def("set_photo_library_directory", &KWQCameraRollHelper::setPhotoLibraryDirectory, "path"_a);
}

}  // namespace
}  // namespace kwq::python

PYBIND11_MODULE(_kwqimage, m) {
  m.doc() = "KWQImage: camera capture and image-quality measures over NumPy arrays.";
  m.attr("version_number") = KWQImageVersionNumber;
  m.attr("CARD_ASPECT_RATIO") = kwq::kCardAspectRatio;
  kwq::python::defineImages(m);
  kwq::python::defineMeasures(m);
  kwq::python::defineGeometry(m);
  kwq::python::defineDetectors(m);
  kwq::python::defineStore(m);
  kwq::python::defineRecorder(m);
  kwq::python::defineEngine(m);
}
