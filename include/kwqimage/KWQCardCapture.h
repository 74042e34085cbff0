#pragma once

/// @file
/// The card capture: what a back office needs of a card the engine holds in card mode: the card
/// flattened to a fixed 86:54 picture, how sharp, bright and glare-free it is, the text of its
/// PDF417 code read as an AAMVA record, and one word of guidance for the person holding it.
/// A host receives it by implementing KWQCardCaptureDelegate; hosts that do not pay nothing.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kwqimage/AAMVA.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/KWQVideoHelperDelegate.h"

namespace kwq {

/// What the person holding the card should do next, most pressing first.
enum class CardGuidance : uint8_t {
  NoCard,      ///< no card in the picture
  MoveCloser,  ///< the card is too small in the picture
  HoldStill,   ///< a card is there but has not held its shape long enough
  TooDark,     ///< the card is underexposed, or no card is found in a dark picture
  Glare,       ///< specular highlights on the card
  OutOfFocus,  ///< the card is blurred
  Ok,          ///< a good capture
};

/// The guidance as a word: "no_card", "move_closer", "hold_still", "too_dark", "glare",
/// "out_of_focus", "ok". Thread: any.
KWQ_EXPORT const char* cardGuidanceName(CardGuidance guidance);

/// Thresholds of the verdict; the defaults suit a 720p or 1080p camera.
struct CardCaptureSettings {
  /// Width of the flattened card in pixels (even, 64..4096); the height is width x 54 / 86.
  size_t cardWidth = 1000;
  /// The card must span at least this share of the frame's width.
  double minCardWidthFraction = 0.3;
  /// Least mean gray level of the card (0..255).
  double minBrightness = 60.0;
  /// Gray level from which a card pixel counts as a specular highlight (0..255).
  double glareLevel = 250.0;
  /// Largest share of the card's area in highlights that is not yet glare.
  double maxGlareFraction = 0.002;
  /// Least sharpness score (see CardCapture::sharpness).
  double minSharpness = 100.0;
  /// Frames over which the best capture is kept: a better one replaces it at once, and any
  /// flattened card replaces one older than this.
  int32_t bestWindowFrames = 15;
  /// Read the PDF417 code on the flattened card when the engine has no code text (once for
  /// each new best capture).
  bool readCode = true;
};

/// Specular highlights on the flattened card.
struct CardGlare {
  /// Share of the card's area at or above the glare level, 0..1.
  double areaFraction = 0.0;
  ///@{
  /// Centre and bounding box of the highlights in the flattened card's pixels (zero without).
  Point centre;
  Rect box;
  ///@}
};

/// One frame's card analysis, or the best one of a recent window. A plain value; copies share
/// the card picture.
struct CardCapture {
  ///@{
  /// The verdict's word, and a plain sentence for each check the card failed (empty for ok).
  CardGuidance guidance = CardGuidance::NoCard;
  std::vector<std::string> reasons;
  ///@}
  /// The flattened card (RGB from 420f/420v frames, BGRA from BGRA frames); the null image
  /// until a card is stable (no_card, move_closer and hold_still frames carry none).
  Image card;
  /// The card's corners in the frame: top left, top right, bottom right, bottom left as the
  /// card appears, in pixels with the origin at the top left, y down (pixel (i, j) covers
  /// [i, i + 1) x [j, j + 1)). Zero without a card.
  std::array<Point, 4> corners{};
  /// Size of the frame the card was found in.
  Size frameSize;
  /// The frame's presentation time in seconds (0 when it had none).
  double time = 0.0;
  /// Detail per unit of contrast on the card reduced to a tenth of `card`'s size: falls
  /// strictly with blur and does not depend on the card's size in the frame or the light.
  /// A printed card in focus scores about 170 to 230, more with more fine print (the synthetic
  /// licence card about 220, blurred by 2 pixels at 720p about 150, by 3 pixels about 105);
  /// 0 without a card picture.
  double sharpness = 0.0;
  /// Mean gray level of the card, 0..255, leaving out specular highlights and their halo (so
  /// a hotspot does not lift a dim card). Without a card: the whole picture's when it is
  /// too dark to find one (guidance too_dark), else 0.
  double brightness = 0.0;
  /// Highlights on the card; zero without a card picture.
  CardGlare glare;
  /// The PDF417 text: the engine's latest code text, else read from the flattened card.
  std::optional<std::string> codeText;
  /// The code text read as an AAMVA record, when it is one.
  std::optional<AAMVARecord> aamva;
};

/// Optional delegate interface: the card capture, in card mode, once per frame on the engine's
/// serial queue "VideoDataOutputQueue" (hop to DispatchQueue::main() for user-interface work).
/// The engine flattens and measures the card only on frames where the card is stable, and
/// only for a delegate that implements this interface.
class KWQ_EXPORT KWQCardCaptureDelegate : public virtual KWQVideoHelperDelegate {
 public:
  /// This frame's analysis (`live`: its guidance is what to show now) and the best capture of
  /// the recent window (`best`: sharpest without glare; guidance no_card until a card was
  /// stable). Both borrowed for the call; copy what you keep.
  virtual void cardCaptureDidUpdate(const CardCapture& live, const CardCapture& best) = 0;
  /// The thresholds the engine uses for this delegate; asked once per frame. Thread: as above.
  virtual CardCaptureSettings cardCaptureSettings() const { return {}; }
};

}  // namespace kwq
