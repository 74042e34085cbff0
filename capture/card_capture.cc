#include "capture/card_capture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <tuple>

#include "kwqimage/CaptureSession.h"
#include "platform/vision/card_image.h"
#include "platform/vision/code_reader.h"

namespace kwq {
namespace {

std::string percent(double v) {
  char s[32];
  std::snprintf(s, sizeof s, "%.1f %%", 100.0 * v);
  return s;
}
std::string number(double v) {
  char s[32];
  std::snprintf(s, sizeof s, "%.1f", v);
  return s;
}

double distance(Point a, Point b) {
  return std::hypot(a.x - b.x, a.y - b.y);
}

// The ordering of captures: glare-free, then bright enough, then the sharpest.
auto rank(const CardCapture& c, const CardCaptureSettings& s) {
  return std::make_tuple(!c.card.isNull(), c.glare.areaFraction <= s.maxGlareFraction,
                         c.brightness >= s.minBrightness, c.sharpness);
}

// Two captures show the same card when their corners lie within a tenth of its width.
bool sameCard(const CardCapture& a, const CardCapture& b) {
  if (a.card.isNull() && a.guidance == CardGuidance::NoCard) return false;
  const double width = distance(a.corners[0], a.corners[1]);
  for (size_t i = 0; i < 4; ++i)
    if (distance(a.corners[i], b.corners[i]) > 0.1 * width) return false;
  return true;
}

}  // namespace

const char* cardGuidanceName(CardGuidance guidance) {
  switch (guidance) {
    case CardGuidance::NoCard:
      return "no_card";
    case CardGuidance::MoveCloser:
      return "move_closer";
    case CardGuidance::HoldStill:
      return "hold_still";
    case CardGuidance::TooDark:
      return "too_dark";
    case CardGuidance::Glare:
      return "glare";
    case CardGuidance::OutOfFocus:
      return "out_of_focus";
    case CardGuidance::Ok:
      return "ok";
  }
  return "no_card";
}

std::array<Point, 4> cardCornersTopDown(const platform::RectangleFeature& f, double frameHeight) {
  auto down = [frameHeight](Point p) { return Point{p.x, frameHeight - p.y}; };
  return {down(f.topLeft), down(f.topRight), down(f.bottomRight), down(f.bottomLeft)};
}

void parseCardCode(CardCapture& capture) {
  capture.aamva.reset();
  if (!capture.codeText || capture.codeText->empty()) return;
  AAMVAParseResult r = parseAAMVA(*capture.codeText);
  if (r.ok()) capture.aamva = std::move(r.record);
}

CardCapture analyseCard(const SampleBuffer& frame, const platform::RectangleFeature* feature,
                        bool stable, const std::optional<std::string>& codeText,
                        const CardCaptureSettings& settings) {
  CardCapture c;
  try {
    const PixelBuffer& buffer = frame.imageBuffer();
    c.frameSize = {static_cast<double>(buffer.width()), static_cast<double>(buffer.height())};
    c.time = frame.presentationTimeStamp().seconds();
    if (codeText && !codeText->empty()) c.codeText = codeText;
    if (!feature) {
      c.reasons.push_back("no card in the picture");
      // In a dark room the card is lost with the light: say so, rather than that there is
      // no card.
      const std::optional<double> light = platform::frameBrightness(buffer);
      if (light && *light < settings.minBrightness) {
        c.guidance = CardGuidance::TooDark;
        c.brightness = *light;
        c.reasons.push_back("the picture's mean gray level is " + number(*light) + ", needs " +
                            number(settings.minBrightness));
      }
      return c;
    }
    c.corners = cardCornersTopDown(*feature, c.frameSize.height);
    const double width =
        0.5 * (distance(c.corners[0], c.corners[1]) + distance(c.corners[3], c.corners[2]));
    const double share = c.frameSize.width > 0 ? width / c.frameSize.width : 0.0;
    if (share < settings.minCardWidthFraction) {
      c.guidance = CardGuidance::MoveCloser;
      c.reasons.push_back("the card spans " + percent(share) + " of the frame's width, needs " +
                          percent(settings.minCardWidthFraction));
      return c;
    }
    if (!stable) {
      // A rectangle far from a card's shape is something else (a square note, a phone); one
      // near it is a card that is tilted or still moving.
      const double height =
          0.5 * (distance(c.corners[0], c.corners[3]) + distance(c.corners[1], c.corners[2]));
      const double aspect = height > 0 ? width / height : 0.0;
      constexpr double kCardAspect = 86.0 / 54.0, kShapeSlack = 1.35;
      if (!(aspect > kCardAspect / kShapeSlack && aspect < kCardAspect * kShapeSlack)) {
        c.guidance = CardGuidance::NoCard;
        c.reasons.push_back("the rectangle in the picture is " + number(aspect) +
                            " times as wide as high, a card " + number(kCardAspect));
        return c;
      }
      c.guidance = CardGuidance::HoldStill;
      c.reasons.push_back("the card has not held its shape long enough");
      return c;
    }
    const auto flat =
        platform::flattenCard(buffer, c.corners, {settings.cardWidth, settings.glareLevel});
    if (!flat) {
      c.guidance = CardGuidance::HoldStill;
      c.reasons.push_back("the card could not be flattened");
      return c;
    }
    c.card = flat->card;
    c.sharpness = flat->sharpness;
    c.brightness = flat->brightness;
    c.glare = {flat->glareFraction, flat->glareCentre, flat->glareBox};
    // Every failed check is a reason; the most pressing one is the guidance.
    if (c.brightness < settings.minBrightness) {
      c.guidance = CardGuidance::TooDark;
      c.reasons.push_back("mean gray level " + number(c.brightness) + ", needs " +
                          number(settings.minBrightness));
    }
    if (c.glare.areaFraction > settings.maxGlareFraction) {
      if (c.reasons.empty()) c.guidance = CardGuidance::Glare;
      c.reasons.push_back("highlights cover " + percent(c.glare.areaFraction) +
                          " of the card, at most " + percent(settings.maxGlareFraction));
    }
    if (c.sharpness < settings.minSharpness) {
      if (c.reasons.empty()) c.guidance = CardGuidance::OutOfFocus;
      c.reasons.push_back("sharpness " + number(c.sharpness) + ", needs " +
                          number(settings.minSharpness));
    }
    if (c.reasons.empty()) c.guidance = CardGuidance::Ok;
    parseCardCode(c);
  } catch (const std::exception&) {
    c = CardCapture{};
    c.reasons.push_back("analysis failed");
  }
  return c;
}

const CardCapture& CardCaptureKeeper::offer(CardCapture& live, uint64_t frameNumber,
                                            const CardCaptureSettings& settings) {
  if (!live.card.isNull()) {
    const bool stale =
        !hasBest_ || frameNumber < bestFrame_ ||
        frameNumber - bestFrame_ > static_cast<uint64_t>(std::max(0, settings.bestWindowFrames));
    if (stale || rank(live, settings) > rank(best_, settings)) {
      // The text read from an earlier best of the same card stays with the card.
      if (!live.codeText && hasBest_ && best_.codeText && sameCard(live, best_))
        live.codeText = best_.codeText;
      if (!live.codeText && settings.readCode) {
        const auto codes =
            platform::readCodes(live.card, {std::string(AVMetadataObjectTypePDF417Code)});
        for (const auto& object : codes) {
          const auto* code = dynamic_cast<const MetadataMachineReadableCodeObject*>(object.get());
          if (code && code->stringValue && !code->stringValue->empty()) {
            live.codeText = code->stringValue;
            break;
          }
        }
      }
      parseCardCode(live);
      best_ = live;
      bestFrame_ = frameNumber;
      hasBest_ = true;
    }
  }
  if (!live.codeText && hasBest_ && best_.codeText && sameCard(live, best_)) {
    live.codeText = best_.codeText;
    live.aamva = best_.aamva;
  }
  return best_;
}

void CardCaptureKeeper::reset() {
  best_ = CardCapture{};
  bestFrame_ = 0;
  hasBest_ = false;
}

}  // namespace kwq
