#pragma once

/// @file
/// A small retained layer model, after the platform's layers: the preview, the centre box, the
/// face box and the barcode outline hang in one tree. Layers are plain objects that describe
/// what to draw; a renderer draws a tree. Use a tree from one thread at a time, normally the
/// main thread (the capture engine posts its layer changes to the main queue).

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "kwqimage/Color.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"

namespace kwq {

class CaptureSession;
struct MetadataObject;

/// A 4 x 4 transform of a layer in space, row-vector convention as the platform's (m41, m42,
/// m43 translate).
struct KWQ_EXPORT Transform3D {
  /// The elements, m[row][column]; the identity by default.
  double m[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};

  /// The identity transform.
  static Transform3D identity() { return {}; }
  /// A rotation by `angle` radians about the axis (x, y, z); the identity for a zero axis.
  static Transform3D makeRotation(double angle, double x, double y, double z);
  /// True for the identity.
  bool isIdentity() const { return *this == identity(); }
  /// The transform seen from the front without perspective (z dropped): how the layer's plane
  /// lands on its superlayer's.
  AffineTransform affineProjection() const {
    return {m[0][0], m[0][1], m[1][0], m[1][1], m[3][0], m[3][1]};
  }
  /// The transform `t` of the way from `from` to `to`: rotations turn about their common
  /// axis by the angle between them, anything else moves element by element.
  static Transform3D interpolate(const Transform3D& from, const Transform3D& to, double t);
  /// Element-wise equality.
  friend bool operator==(const Transform3D&, const Transform3D&) = default;
};

/// Lines and their points. Each subpath starts with a move; lines add points to it.
struct KWQ_EXPORT Path {
  /// The subpaths, each a list of points joined by lines.
  std::vector<std::vector<Point>> subpaths;

  /// Starts a new subpath at `p`.
  void moveTo(Point p);
  /// Adds a line to `p`; without a current subpath it starts one at `p`.
  void addLineTo(Point p);
  /// Appends the other path's subpaths.
  void addPath(const Path& other);
  /// Adds an arc about `center` from `startAngle` to `endAngle` (radians, 0 along +x, growing
  /// towards +y), as points no more than 0.02 points off the circle. `clockwise` false lets the
  /// angle grow (clockwise on a y-down screen), true lets it shrink, as the platform's add-arc.
  /// A line joins the current point to the arc's start; without one the arc starts a subpath.
  /// A negative or non-finite radius or angle adds nothing.
  void addArc(Point center, double radius, double startAngle, double endAngle, bool clockwise);
  /// Closes the current subpath with a line back to its first point.
  void closeSubpath();
  /// Adds a closed rectangle as its own subpath; nothing for the null rectangle.
  void addRect(const Rect& rect);
  /// True without subpaths.
  bool isEmpty() const { return subpaths.empty(); }
  /// The smallest rectangle holding every point; the null rectangle for an empty path.
  Rect boundingBox() const;
  /// Point-wise equality.
  friend bool operator==(const Path&, const Path&) = default;
};

/// A value an animation moves a property to.
using AnimationValue = std::variant<std::monostate, double, Point, Rect, Color, Transform3D>;

/// An animation of one layer property from its value (or `fromValue`) to `toValue`.
struct KWQ_EXPORT BasicAnimation {
  /// An animation of the property `keyPath` (e.g. "transform").
  static BasicAnimation animationWithKeyPath(std::string keyPath);

  /// The animated property.
  std::string keyPath;
  /// Where it starts; none: the layer's own value.
  AnimationValue fromValue;
  /// Where it ends.
  AnimationValue toValue;
  double duration = 0.25;  ///< seconds, one way
  /// Whether it runs back after each run forward.
  bool autoreverses = false;
  /// How often it runs; once when below 1 or not finite.
  float repeatCount = 0.0f;
  /// Set when the animation is added to a layer.
  std::chrono::steady_clock::time_point beginTime{};

  /// How far the animation has gone at `time` (currentMediaTime() seconds): 0 to 1 and back
  /// with autoreverses, linear pacing; none before it begins or once it has ended (the layer
  /// then shows its own value again, as the platform removes finished animations).
  std::optional<double> progressAt(double time) const;
};

/// Seconds on the steady clock that animations' begin times are stamped with; pass it to the
/// renderer to draw the tree as it looks now. Thread: any.
KWQ_EXPORT double currentMediaTime();

/// A rectangle in its superlayer's coordinates with a border, a background and sublayers.
///
/// `frame` places the layer in its superlayer; `bounds` is the layer's own coordinate space,
/// origin (0, 0) and the frame's size unless set. Sublayers are drawn in order, the last on top.
class KWQ_EXPORT Layer : public std::enable_shared_from_this<Layer> {
 public:
  /// A new layer: zero frame, no border, no background, opaque.
  static std::shared_ptr<Layer> layer();
  virtual ~Layer();
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  /// Where the layer lies in its superlayer.
  Rect frame() const { return frame_; }
  /// Sets the frame; the bounds take its size (their origin stays).
  void setFrame(Rect frame);
  /// The layer's own coordinate space.
  Rect bounds() const { return bounds_; }
  /// Sets the bounds; the frame takes their size (its origin stays).
  void setBounds(Rect bounds);

  ///@{
  /// The border's width in points; 0 (none) by default.
  double borderWidth() const { return borderWidth_; }
  void setBorderWidth(double width) { borderWidth_ = width; }
  ///@}
  /// Opaque black by default, as the platform's.
  Color borderColor() const { return borderColor_; }
  /// Sets borderColor().
  void setBorderColor(Color color) { borderColor_ = color; }
  /// None (transparent) by default.
  std::optional<Color> backgroundColor() const { return backgroundColor_; }
  /// Sets backgroundColor(); none for transparent.
  void setBackgroundColor(std::optional<Color> color) { backgroundColor_ = color; }
  ///@{
  /// The radius of the rounded corners, in points; 0 by default.
  double cornerRadius() const { return cornerRadius_; }
  void setCornerRadius(double radius) { cornerRadius_ = radius; }
  ///@}
  ///@{
  /// How opaque the layer and its sublayers are drawn, 0..1; 1 by default.
  float opacity() const { return opacity_; }
  void setOpacity(float opacity) { opacity_ = opacity; }
  ///@}
  ///@{
  /// Whether sublayers are clipped to the bounds; off by default.
  bool masksToBounds() const { return masksToBounds_; }
  void setMasksToBounds(bool masks) { masksToBounds_ = masks; }
  ///@}
  ///@{
  /// A hidden layer and its sublayers are not drawn.
  bool isHidden() const { return hidden_; }
  void setHidden(bool hidden) { hidden_ = hidden; }
  ///@}
  ///@{
  /// The model transform; the identity by default.
  Transform3D transform() const { return transform_; }
  void setTransform(const Transform3D& transform) { transform_ = transform; }
  ///@}
  /// The transform as shown at `time` (currentMediaTime() seconds): the model transform, or
  /// where a running "transform" animation has moved it. The transform turns the layer about
  /// the centre of its frame.
  Transform3D presentationTransform(double time) const;

  /// A bitmap drawn over the background, stretched to the bounds (a view's drawing lands
  /// here); the null image for none.
  const Image& contents() const { return contents_; }
  /// Sets contents().
  void setContents(Image contents) { contents_ = std::move(contents); }

  /// The sublayers, bottom first.
  const std::vector<std::shared_ptr<Layer>>& sublayers() const { return sublayers_; }
  /// The layer this one hangs in; null for a root.
  std::shared_ptr<Layer> superlayer() const { return superlayer_.lock(); }
  /// Appends `layer` on top, taking it from its old superlayer; a layer already here moves to
  /// the top. Null, the layer itself and its ancestors are ignored (no cycles).
  void addSublayer(const std::shared_ptr<Layer>& layer);
  /// Inserts at `index` (clamped to the end), taking it from its old superlayer.
  void insertSublayer(const std::shared_ptr<Layer>& layer, size_t index);
  /// Detaches the layer from its superlayer; nothing when it has none.
  void removeFromSuperlayer();

  /// Adds (or replaces) the animation under `key`, stamping its begin time.
  void addAnimation(BasicAnimation animation, const std::string& key);
  /// The animation under `key`; none when there is none.
  std::optional<BasicAnimation> animationForKey(const std::string& key) const;
  /// Removes the animation under `key`.
  void removeAnimationForKey(const std::string& key);
  /// Removes every animation.
  void removeAllAnimations();
  /// The keys of the animations, sorted.
  std::vector<std::string> animationKeys() const;

 protected:
  /// For layer() and subclasses.
  Layer() = default;

 private:
  Rect frame_;
  Rect bounds_;
  double borderWidth_ = 0.0;
  Color borderColor_ = Color::blackColor();
  std::optional<Color> backgroundColor_;
  double cornerRadius_ = 0.0;
  float opacity_ = 1.0f;
  bool masksToBounds_ = false;
  bool hidden_ = false;
  Transform3D transform_;
  Image contents_;
  std::vector<std::shared_ptr<Layer>> sublayers_;
  std::weak_ptr<Layer> superlayer_;
  std::map<std::string, BasicAnimation> animations_;
};

/// A layer that draws a path: filled (black by default) and stroked (not by default).
class KWQ_EXPORT ShapeLayer : public Layer {
 public:
  /// A new shape layer: empty path, black fill, no stroke, line width 1.
  static std::shared_ptr<ShapeLayer> layer();

  ///@{
  /// The path drawn, in the layer's bounds coordinates.
  const Path& path() const { return path_; }
  void setPath(Path path) { path_ = std::move(path); }
  ///@}
  ///@{
  /// The fill; none for no fill.
  std::optional<Color> fillColor() const { return fillColor_; }
  void setFillColor(std::optional<Color> color) { fillColor_ = color; }
  ///@}
  ///@{
  /// The stroke; none for no stroke.
  std::optional<Color> strokeColor() const { return strokeColor_; }
  void setStrokeColor(std::optional<Color> color) { strokeColor_ = color; }
  ///@}
  ///@{
  /// The stroke's width in points.
  double lineWidth() const { return lineWidth_; }
  void setLineWidth(double width) { lineWidth_ = width; }
  ///@}

 protected:
  /// For layer().
  ShapeLayer() = default;

 private:
  Path path_;
  std::optional<Color> fillColor_ = Color::blackColor();
  std::optional<Color> strokeColor_;
  double lineWidth_ = 1.0;
};

///@{
/// How the preview fits the video into its bounds.
inline constexpr std::string_view AVLayerVideoGravityResizeAspect =
    "AVLayerVideoGravityResizeAspect";
inline constexpr std::string_view AVLayerVideoGravityResizeAspectFill =
    "AVLayerVideoGravityResizeAspectFill";
inline constexpr std::string_view AVLayerVideoGravityResize = "AVLayerVideoGravityResize";
///@}

/// Shows a session's video. The front camera's picture is shown mirrored, like a mirror.
class KWQ_EXPORT PreviewLayer : public Layer {
 public:
  /// A preview of `session` (may be null).
  static std::shared_ptr<PreviewLayer> layerWithSession(std::shared_ptr<CaptureSession> session);

  ///@{
  /// The session shown.
  std::shared_ptr<CaptureSession> session() const { return session_; }
  void setSession(std::shared_ptr<CaptureSession> session) { session_ = std::move(session); }
  ///@}
  /// ResizeAspect by default; unknown names are ignored.
  const std::string& videoGravity() const { return videoGravity_; }
  /// Sets videoGravity() to one of the gravities above.
  void setVideoGravity(std::string_view gravity);

  /// True while the session's camera is a front camera.
  bool isMirrored() const;
  /// Where the video lies in the layer's bounds (for ResizeAspectFill it extends past them);
  /// the null rectangle without a session or before the video's size is known.
  Rect videoRect() const;

  /// A copy of a metadata object with its bounds (and a code's corners) moved from the
  /// frame's normalised coordinates into this layer's points, honouring the gravity and the
  /// mirroring; a mirrored face's roll and yaw angles turn the other way (360 - angle). Null
  /// without a session or before the video's size is known.
  std::shared_ptr<MetadataObject> transformedMetadataObjectForMetadataObject(
      const MetadataObject& object) const;

 protected:
  /// For layerWithSession().
  PreviewLayer() = default;

 private:
  std::shared_ptr<CaptureSession> session_;
  std::string videoGravity_{AVLayerVideoGravityResizeAspect};
};

}  // namespace kwq
