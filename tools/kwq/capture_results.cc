#include "kwq/capture_results.h"

#include <algorithm>
#include <cmath>

#include "kwq/capture_progress.h"
#include "kwq/table.h"

namespace kwq::tool {
namespace {

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  // Nearest rank: the smallest value with at least p of the values at or below it.
  const size_t rank = static_cast<size_t>(std::max(1.0, std::ceil(p * values.size())));
  return values[std::min(rank, values.size()) - 1];
}

std::string rectText(Rect r) {
  return formatNumber("%g", r.origin.x) + ", " + formatNumber("%g", r.origin.y) + ", " +
         formatNumber("%g", r.size.width) + ", " + formatNumber("%g", r.size.height);
}

// A count as both value and text.
void addCount(CaptureResults& results, std::string key, std::string label, uint64_t n) {
  results.add(std::move(key), std::move(label), n, std::to_string(n));
}

// A number as both value and text, the text as printf prints it with `fmt`.
void addNumber(CaptureResults& results, std::string key, std::string label, double value,
               const char* fmt) {
  results.add(std::move(key), std::move(label), value, formatNumber(fmt, value));
}

// "0: 12, 30: 4" for the table, {"0": 12, "30": 4} for JSON.
void addAngles(CaptureResults& results, const char* key, const char* label,
               const std::map<double, uint64_t>& counts) {
  Json object = Json::object();
  std::string text;
  for (const auto& [angle, n] : counts) {
    const std::string name = formatNumber("%g", angle);
    object.set(name, n);
    text += (text.empty() ? "" : ", ") + name + ": " + std::to_string(n);
  }
  results.add(key, label, std::move(object), text.empty() ? "-" : text);
}

void addCardMeasures(CaptureResults& results, const CaptureMonitor::Summary& s) {
  addCount(results, "stable_frames", "frames with a stable card", s.stableFrames);
  const bool stable = s.firstStable.has_value();
  results.add("first_stable_frame", "first stable frame", stable ? Json(*s.firstStable) : Json(),
              stable ? std::to_string(*s.firstStable) : "-");
  results.add(
      "card_centre", "card centre (px, y up)",
      stable ? Json::numbers({s.centre.x, s.centre.y}) : Json(),
      stable ? formatNumber("%.1f", s.centre.x) + ", " + formatNumber("%.1f", s.centre.y) : "-");
  results.add("marker_rect", "marker rect", stable ? rectJson(s.marker) : Json(),
              stable ? rectText(s.marker) : "-");
}

void addFaceMeasures(CaptureResults& results, const CaptureMonitor::Summary& s) {
  addCount(results, "face_frames", "frames with a face", s.faceFrames);
  addCount(results, "centred_frames", "frames with the head centred", s.centredFrames);
  addAngles(results, "yaw_frames", "face frames by yaw", s.yaws);
  addAngles(results, "roll_frames", "face frames by roll", s.rolls);
}

}  // namespace

void CaptureResults::add(std::string key, std::string label, Json value, std::string text) {
  entries_.push_back({std::move(key), std::move(label), std::move(value), std::move(text)});
}

void CaptureResults::addFile(std::string key, std::string label, const std::string& path,
                             bool written) {
  add(std::move(key), std::move(label), written ? Json(path) : Json(), written ? path : "-");
}

void CaptureResults::print(std::ostream& out, bool json) const {
  if (json) {
    Json summary = Json::object();
    for (const Entry& entry : entries_) summary.set(entry.key, entry.value);
    summary.write(out);
    out << '\n';
    return;
  }
  Table table({"measure", "value"});
  table.alignLeft();
  for (const Entry& entry : entries_) table.addRow({entry.label, entry.text});
  table.print(out);
}

void addMeasures(CaptureResults& results, const CaptureDevice& camera,
                 const CaptureOptions& options, const CaptureMonitor::Summary& s, uint64_t dropped,
                 const MetadataOutputStatistics& meta, const std::map<CodeSeen, uint64_t>& codes) {
  const double fps = s.frames > 1 && s.seconds > 0 ? (s.frames - 1) / s.seconds : 0.0;
  const char* mode = options.cardMode ? "card" : "face";
  results.add("camera", "camera", camera.uniqueID(),
              camera.localizedName() + " (" + camera.uniqueID() + ")");
  results.add("mode", "mode", mode, mode);
  results.add("frame_size", "frame size", Json::numbers({double(s.width), double(s.height)}),
              std::to_string(s.width) + "x" + std::to_string(s.height));
  addCount(results, "frames", "frames delivered", s.frames);
  addNumber(results, "seconds", "duration s", s.seconds, "%.2f");
  results.add("fps", "fps", fps, fps > 0 ? formatNumber("%.1f", fps) : "-");
  addCount(results, "frames_dropped", "frames dropped", dropped);
  addCount(results, "delegate_calls", "delegate calls", s.delegateCalls);
  if (options.cardMode)
    addCardMeasures(results, s);
  else
    addFaceMeasures(results, s);
  const double metaSeconds = std::max(s.seconds, 1e-9);
  addNumber(results, "face_metadata_per_s", "face metadata /s",
            meta.callbacksWithFaces / metaSeconds, "%.1f");
  addNumber(results, "code_metadata_per_s", "code metadata /s",
            meta.callbacksWithCodes / metaSeconds, "%.1f");
  addCount(results, "metadata_frames_examined", "frames examined for metadata",
           meta.framesExamined);
  addNumber(results, "metadata_latency_p50_ms", "metadata latency p50 ms",
            meta.latencyP50Milliseconds, "%.1f");
  addNumber(results, "metadata_latency_p95_ms", "metadata latency p95 ms",
            meta.latencyP95Milliseconds, "%.1f");
  Json list = Json::array();
  std::string rows;
  for (const auto& [code, frames] : codes) {
    list.push(Json::object()
                  .set("type", code.type)
                  .set("text", code.text ? Json(*code.text) : Json())
                  .set("frames", frames));
    rows += (rows.empty() ? "" : "; ") + code.type + " \"" +
            (code.text ? printableCode(*code.text, 60) : "(not text)") + "\" x" +
            std::to_string(frames);
  }
  results.add("codes", "codes read", std::move(list), rows.empty() ? "-" : rows);
  addNumber(results, "frame_step_p50_ms", "frame step p50 ms", percentile(s.stepMs, 0.50), "%.2f");
  addNumber(results, "frame_step_p95_ms", "frame step p95 ms", percentile(s.stepMs, 0.95), "%.2f");
}

}  // namespace kwq::tool
