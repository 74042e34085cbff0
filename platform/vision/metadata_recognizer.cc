#include "platform/vision/metadata_recognizer.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "platform/vision/code_reader.h"
#include "platform/vision/live_face_recognizer.h"
#include "platform/vision/mrz_reader.h"

namespace kwq::platform {
namespace {

// A gap in time stamps this long means the faces seen before are no evidence for this frame.
constexpr double kTrackingGapSeconds = 1.0;

struct FaceStage {
  std::unique_ptr<LiveFaceRecognizer> recognizer;
  double lastTime = 0.0;
};

// zxing 1.4's PDF417 decoder now and then returns a text that is wrong yet passes its error
// correction (about one read in 200 of the synthetic licence card gave letters from nowhere).
// A live PDF417 is therefore reported from its second read: the same text decoded on another
// frame within kConfirmSeconds. A wrong text is never read twice; a right one costs the first
// frame it was read on.
constexpr double kConfirmSeconds = 2.0;
constexpr size_t kRememberedReads = 16;

class CodeConfirmation {
 public:
  // Drops the PDF417 codes of `codes` (read on a frame at `time` seconds) whose text was not
  // read on another frame within kConfirmSeconds before; remembers every text read.
  void filter(MetadataObjects& codes, double time) {
    std::erase_if(reads_,
                  [&](const Read& r) { return r.time > time || time - r.time > kConfirmSeconds; });
    std::vector<Read> now;
    std::erase_if(codes, [&](const std::shared_ptr<const MetadataObject>& object) {
      const auto* code = dynamic_cast<const MetadataMachineReadableCodeObject*>(object.get());
      if (!code || code->type != AVMetadataObjectTypePDF417Code || !code->stringValue) return false;
      now.push_back({*code->stringValue, time});
      return std::none_of(reads_.begin(), reads_.end(), [&](const Read& r) {
        return r.time < time && r.text == *code->stringValue;
      });
    });
    reads_.insert(reads_.end(), now.begin(), now.end());
    if (reads_.size() > kRememberedReads)
      reads_.erase(reads_.begin(), reads_.end() - kRememberedReads);
  }

 private:
  struct Read {
    std::string text;
    double time;
  };
  std::vector<Read> reads_;
};

// A machine-readable zone is reported from its second identical read within kConfirmSeconds,
// valid or not. Single valid reads were wrong on 2 of 10,800 handheld frames (a misread that
// a check-digit correction then made agree); two agreeing reads were never wrong (6,254
// frames), at the cost of the first frame.
class ZoneConfirmation {
 public:
  bool confirm(const LiveMRZ& read, double time) {
    std::erase_if(reads_,
                  [&](const Read& r) { return r.time > time || time - r.time > kConfirmSeconds; });
    const std::string& text = *read.object->stringValue;
    const bool seen = std::any_of(reads_.begin(), reads_.end(),
                                  [&](const Read& r) { return r.time < time && r.text == text; });
    reads_.push_back({text, time});
    if (reads_.size() > kRememberedReads) reads_.erase(reads_.begin());
    return seen;
  }

 private:
  struct Read {
    std::string text;
    double time;
  };
  std::vector<Read> reads_;
};

}  // namespace

MetadataOutput::Impl::Recognizer makeMetadataRecognizer() {
  auto faces = std::make_shared<FaceStage>();
  auto confirmation = std::make_shared<CodeConfirmation>();
  auto zones = std::make_shared<ZoneConfirmation>();
  return [faces, confirmation, zones](const SampleBuffer& frame,
                                      const std::vector<std::string>& types) {
    MetadataObjects found;
    const bool wantFaces =
        std::find(types.begin(), types.end(), AVMetadataObjectTypeFace) != types.end();
    if (wantFaces) {
      const MediaTime stamp = frame.presentationTimeStamp();
      const double t = stamp.seconds();
      if (faces->recognizer && stamp.isValid() &&
          (t < faces->lastTime || t - faces->lastTime > kTrackingGapSeconds))
        faces->recognizer.reset();
      if (stamp.isValid()) faces->lastTime = t;
      if (!faces->recognizer) faces->recognizer = std::make_unique<LiveFaceRecognizer>();
      for (auto& face : faces->recognizer->recognize(frame)) found.push_back(face);
    } else {
      faces->recognizer.reset();
    }
    MetadataObjects codes = readCodes(frame, types);
    if (frame.presentationTimeStamp().isValid())
      confirmation->filter(codes, frame.presentationTimeStamp().seconds());
    found.insert(found.end(), std::make_move_iterator(codes.begin()),
                 std::make_move_iterator(codes.end()));
    if (std::find(types.begin(), types.end(), KWQMetadataObjectTypeMRZ) != types.end()) {
      const MediaTime stamp = frame.presentationTimeStamp();
      if (auto zone = readMRZ(frame);
          zone && stamp.isValid() && zones->confirm(*zone, stamp.seconds()))
        found.push_back(std::move(zone->object));
    }
    return found;
  };
}

}  // namespace kwq::platform
