#pragma once

/// @file
/// What a synthetic camera films, as data: a background, the light, and a list of props (ID
/// cards, photographs of people, loose code stickers), each with its content and its motion
/// over time. Scenes come from presets (SyntheticScene::card(), SyntheticScene::portrait()) or
/// from a small JSON file (syntheticSceneFromJson); the same scene always films the same
/// frames, bit for bit.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"

namespace kwq {

/// A driving-licence record in the AAMVA DL/ID format (version 10) for the fictitious holder
/// printed on the synthetic card (Jane Alexandra Doe, born 12 March 1988, document K47Q0193552,
/// expiring 30 June 2032), with an issuer number (999000) and jurisdiction (KW) that no issuer
/// uses. The synthetic card's PDF417 carries it unless the prop's codeText says otherwise. Its
/// symbol's modules come out 1.5 to 2.5 pixels wide on a 1280x720 frame, at the edge of what
/// the code reader reads live (about a third of the frames); a flattened card reads every time.
inline constexpr std::string_view kSyntheticCardAAMVAText =
    "@\n\x1e\rANSI 999000100001DL00310209DLDCAD\nDCBNONE\nDCDNONE\nDBA06302032\nDCSDOE\nDACJANE\n"
    "DADALEXANDRA\nDBD07012024\nDBB03121988\nDBC2\nDAYBRO\nDAU066 IN\nDAG1 SAMPLE ROAD\n"
    "DAIEXAMPLE CITY\nDAJKW\nDAK000010000\nDAQK47Q0193552\nDCFKWQ0001\nDCGUSA\nDDEN\nDDFN\nDDGN\r";

/// NASA's portrait of astronaut Eileen Collins (512 x 512, public domain), as Debian's
/// python3-skimage package installs it: the portrait prop's photograph unless it names another.
inline constexpr const char* kSyntheticPortraitPhotoPath =
    "/usr/lib/python3/dist-packages/skimage/data/astronaut.png";

/// The machine-readable zone (TD3) of the synthetic passport's data page: Maren Elise
/// Lindqvist of the specimen state Utopia, born 14 March 1987, passport X4RT71J05 expiring
/// 30 September 2034, personal number ZK73109Q.
inline constexpr std::string_view kSyntheticPassportMRZ =
    "P<UTOLINDQVIST<<MAREN<ELISE<<<<<<<<<<<<<<<<<\n"
    "X4RT71J053UTO8703145F3409305ZK73109Q<<<<<<78";

/// The machine-readable zone (TD1) of the synthetic ID card's back: the same holder, card
/// UC7281045 expiring 30 June 2031.
inline constexpr std::string_view kSyntheticIdCardMRZ =
    "I<UTOUC72810459B8S20Q<<<<<<<<<\n"
    "8703145F3106305UTO<<<<<<<<<<<3\n"
    "LINDQVIST<<MAREN<ELISE<<<<<<<<";

/// The kinds of thing a scene can hold.
enum class SyntheticPropKind : uint8_t {
  /// An ID-1 card (86 x 54 mm) laid out like a licence front: header band, drawn photo,
  /// printed fields and its code (PDF417) across the lower half.
  Card,
  /// A photograph of a person, head and shoulders (the astronaut portrait by default, or any
  /// photograph together with where its face is).
  Portrait,
  /// A plain white label carrying one code, PDF417 or QR, with its quiet zone.
  CodeSticker,
  /// A passport's data page (ID-3, 125 x 88 mm): header, photo, printed fields and a
  /// two-line machine-readable zone in OCR-B along its lower edge.
  Passport,
  /// The back of an ID-1 card (86 x 54 mm) with a three-line machine-readable zone (TD1).
  IdCardBack,
};

/// The symbologies a prop can carry.
enum class SyntheticCodeType : uint8_t { PDF417, QR };

/// "PDF417" or "QR": the names the metadata output uses for the same symbologies.
KWQ_EXPORT const char* syntheticCodeTypeName(SyntheticCodeType type);

/// "card", "portrait", "sticker", "passport" or "idcard": a kind's name in scene files and in the
/// frame truth.
KWQ_EXPORT const char* syntheticPropKindName(SyntheticPropKind kind);

/// One movement of a prop; a prop's motions apply in order, each to the pose the ones before
/// it left (a prop without motions holds still where it is placed). Times in seconds from
/// frame 0; a cycle's `period` of 0 or less counts as 10 s.
struct SyntheticMotion {
  /// The kinds of movement.
  enum class Kind : uint8_t {
    /// A card held in a hand in front of the camera: the library's seeded 60 s path (size
    /// 37 to 65 % of the picture's width, tilting up to about 21 degrees, rolling within about
    /// 5, sliding partly out twice a minute). Sets the whole pose; ignores the placement.
    Handheld,
    /// A person before a kiosk camera: the face's width sweeps between `from` and `to` (as
    /// fractions of the picture's height, defaults 0.11 and 0.50) every 15 s, the head rolls
    /// 40 sin(2 pi t / 10 s) degrees, the face wanders about the middle, and from 21 s to 29 s
    /// of each 30 s the portrait leaves past the right edge and comes back. Sets the whole pose.
    Sway,
    /// The anchor moves from where the prop is placed to `to` (fractions of the picture's width
    /// and height) and back, once a period, easing at both ends.
    Pan,
    /// The size swings between the placed size and `amount` times it, once a period.
    Approach,
    /// Turns in the picture's plane: by `amount` degrees per second when `period` is 0 (going
    /// on for ever), else swinging amount x sin(2 pi t / period) degrees. Positive: clockwise
    /// as seen.
    Turn,
    /// Turns out of the plane: yaw by `amount` and pitch by `amount2` degrees, swinging once a
    /// period (pitch a quarter-period behind).
    Tilt,
    /// A hand's tremor: the anchor jitters by up to `amount` of the prop's width and the roll
    /// by up to 1 degree, smoothly, about 4 times a second (seeded).
    Shake,
    /// Leaves the picture towards `side` from `start` s, stays out for `duration` s and comes
    /// back, easing over 1.5 s each way; repeats every `period` s when period is above 0.
    Leave,
  };
  /// Which movement.
  Kind kind = Kind::Handheld;
  /// Seconds per cycle (0 or less: 10 s, except for Turn and Leave).
  double period = 0.0;
  ///@{
  /// The movement's size, as each kind above reads it.
  double amount = 0.0;
  double amount2 = 0.0;
  ///@}
  /// Pan's far end; Sway's face widths (x: smallest, y: largest; 0 keeps the defaults).
  Point to = {0.0, 0.0};
  ///@{
  /// Leave: when it goes and how long it stays out, in seconds.
  double start = 0.0;
  double duration = 0.0;
  ///@}
  /// Leave: the edge it leaves past.
  enum class Side : uint8_t { Left, Right, Up, Down };
  /// Leave: the edge it leaves past.
  Side side = Side::Right;
  /// Handheld and Shake: which path (0: the scene's seed).
  uint64_t seed = 0;
};

/// One thing in the scene.
struct SyntheticProp {
  /// What the prop is.
  SyntheticPropKind kind = SyntheticPropKind::Card;
  /// Names the prop in the frame truth; empty: "card", "portrait", "sticker" with a number
  /// from the second prop of a kind on.
  std::string name;

  /// Card and sticker: the text of the code it carries; empty: none (a text the writer cannot
  /// encode leaves the code out as well).
  std::string codeText = std::string(kSyntheticCardAAMVAText);
  /// Passport and ID card back: the machine-readable zone's lines, separated by line feeds;
  /// empty: kSyntheticPassportMRZ or kSyntheticIdCardMRZ. Any characters are printed as they
  /// are (garbage in OCR-B is a fair test).
  std::string mrzText;
  /// Sticker: the symbology (cards always carry PDF417).
  SyntheticCodeType codeType = SyntheticCodeType::PDF417;
  ///@{
  /// Portrait: the photograph, and the face in it as a square box in its pixels (top-left
  /// origin) with the head's own roll there (clockwise, degrees). The defaults describe
  /// kSyntheticPortraitPhotoPath; a photograph that cannot be read leaves the prop out.
  std::string photoPath = kSyntheticPortraitPhotoPath;
  Rect photoFace = {{175.0, 65.0}, {98.0, 98.0}};
  double photoRollDegrees = 2.7;
  ///@}
  /// Portrait: the part of the photograph shown (empty: the whole photograph).
  Rect photoCrop = {{96.0, 0.0}, {256.0, 320.0}};

  ///@{
  /// Where it stands when nothing moves it: its anchor (a card's or sticker's centre, a
  /// portrait's face centre) as fractions of the picture's width and height; its width (a
  /// portrait: its face's width) as a fraction of the picture's width; its turn in the plane
  /// (clockwise as seen) and out of it, in degrees.
  Point at = {0.5, 0.5};
  double size = 0.4;
  double rollDegrees = 0.0;
  double yawDegrees = 0.0;
  double pitchDegrees = 0.0;
  ///@}
  /// How it moves, applied in order.
  std::vector<SyntheticMotion> motion;
};

/// The scene's light.
struct SyntheticLight {
  /// Amplitude of a slow brightness drift (7.5 s period) as a fraction of the exposure.
  double exposureDrift = 0.0;
  /// Share of one-second spans (0..1, chosen per span from the seed) filmed in dim light, at
  /// kSyntheticDimExposure of the normal exposure: a room light switched off, a hand's shadow.
  double dimProbability = 0.0;
  /// Share of frames (0..1, chosen per frame from the seed) on which a specular highlight
  /// shines on each card: a saturated hotspot about an eighth of the card's width across.
  double glareProbability = 0.0;
};

/// A whole scene.
struct KWQ_EXPORT SyntheticScene {
  /// What is behind the props.
  enum class Background : uint8_t {
    Desk,  ///< a wooden desk under uneven light with a few things on it (nothing card-shaped)
    Wall,  ///< a plain grey wall, lit a little unevenly
  };
  /// The backdrop.
  Background background = Background::Desk;
  /// Drift, dim spans and glare.
  SyntheticLight light;
  ///@{
  /// Blur of the whole picture and sensor noise (standard deviations, pixels and gray levels).
  double blurSigma = 0.0;
  double noiseSigma = 0.0;
  ///@}
  /// Seeds the background, the noise, the light and the seeded motions.
  uint64_t seed = 1;
  /// Drawn in order, later props over earlier ones.
  std::vector<SyntheticProp> props;

  /// An ID card carrying `codeText` in its PDF417, held in a hand over the desk (the default
  /// scene of every synthetic camera).
  static SyntheticScene card(std::string codeText = std::string(kSyntheticCardAAMVAText));
  /// A portrait photograph before a kiosk camera (faces 11 to 50 % of the picture's height,
  /// about 80 to 355 pixels wide at 720p, rolling, leaving the picture for 3 s of every 30 s),
  /// over the desk.
  static SyntheticScene portrait();
  /// The card held 42 % of the picture's width across, turning through +-45 degrees in the
  /// picture's plane every 12 s while it tilts up to about 14 degrees, drifts and trembles: a
  /// licence held at any slant.
  static SyntheticScene turningCard(std::string codeText = std::string(kSyntheticCardAAMVAText));
  /// A passport's data page (or with `idCard` an ID card's back) held in a hand over the desk,
  /// on the card's handheld path, in dim light now and then, with glare on a tenth of the
  /// frames, slight blur and sensor noise.
  static SyntheticScene document(bool idCard = false);
  /// A preset by name: "card", "turning", "portrait", "passport", "idcard" or "empty" (the
  /// desk alone); none for other names.
  static std::optional<SyntheticScene> preset(std::string_view name);
};

/// Reads a scene from JSON text, e.g.
/// {"background": "wall", "seed": 3, "light": {"drift": 0.1, "dim": 0, "glare": 0.2},
///  "blur": 0, "noise": 2, "props": [
///   {"kind": "card", "code": "HELLO", "at": [0.3, 0.5], "size": 0.35,
///    "motion": [{"kind": "turn", "amount": 45, "period": 8}]},
///   {"kind": "portrait", "at": [0.75, 0.45], "size": 0.1,
///    "motion": [{"kind": "pan", "to": [0.6, 0.5], "period": 12}]}]}
/// Keys are the fields above in snake case ("code" for codeText, "code_type": "pdf417"|"qr",
/// "photo", "photo_face": [x, y, side], "photo_roll", "photo_crop": [x, y, w, h], "roll",
/// "yaw", "pitch"; a motion's "kind" is its name in lower case, "side" one of "left",
/// "right", "up", "down"). A "preset" key starts from that preset's scene. None, with a
/// reason on `error` (the key and what is wrong), for text that is not such a scene.
/// Thread: any.
KWQ_EXPORT std::optional<SyntheticScene> syntheticSceneFromJson(std::string_view json,
                                                                std::string* error = nullptr);

/// The same from a file. Thread: any.
KWQ_EXPORT std::optional<SyntheticScene> syntheticSceneFromFile(const std::string& path,
                                                                std::string* error = nullptr);

}  // namespace kwq
