#include "kwq/capture_progress.h"

#include <cstdio>

#include <kwqimage/AAMVA.h>

#include "kwq/table.h"

namespace kwq::tool {

std::string printableCode(const std::string& text, size_t width) {
  if (const AAMVAParseResult record = parseAAMVA(text); record.ok()) {
    const AAMVARecord& r = *record.record;
    return "AAMVA " + r.customerId + " " + r.familyName + ", " + r.givenName;
  }
  std::string out;
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else if (u < 0x20 || u == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", u);
      out += escaped;
    } else
      out += c;
  }
  if (out.size() > width) out = out.substr(0, width - 3) + "...";
  return out;
}

CaptureProgress::CaptureProgress(std::ostream& out, const CaptureOptions& options, bool synthetic,
                                 Clock::time_point start)
    : out_(out), options_(options), synthetic_(synthetic), start_(start), lastPrint_(start) {}

std::string CaptureProgress::line(const CaptureMonitor& monitor, const KWQVideoHelper& engine,
                                  Clock::time_point now) const {
  const uint64_t frames = monitor.frames();
  const double seconds = std::chrono::duration<double>(now - start_).count();
  std::string code = printableCode(engine.parsedData().value_or(""), 40);
  if (code.empty()) code = "-";
  std::string line = "frames " + std::to_string(frames);
  if (options_.frames) line += "/" + std::to_string(*options_.frames);
  line += "  " + formatNumber("%.1f", seconds > 0 ? frames / seconds : 0.0) + " fps";
  line += "  dropped " + std::to_string(monitor.dropped(*engine.videoDataOutput(), synthetic_));
  if (options_.cardMode)
    line += "  stable " + std::to_string(monitor.stableFrames());
  else
    line += "  faces " + std::to_string(monitor.faceFrames());
  line += "  code " + code;
  return line;
}

void CaptureProgress::update(const CaptureMonitor& monitor, const KWQVideoHelper& engine,
                             const CardOutput* card, Clock::time_point now, bool done) {
  const bool live = options_.liveProgress;
  if (!live && !done && now - lastPrint_ < std::chrono::seconds(1)) return;
  std::string text = line(monitor, engine, now);
  if (card) text += "  guidance " + card->guidance();
  if (live) {
    // Blanks over what is left of a longer line before.
    out_ << '\r' << text
         << std::string(lastWidth_ > text.size() ? lastWidth_ - text.size() : 0, ' ');
    if (done) out_ << '\n';
    lastWidth_ = text.size();
  } else {
    out_ << text << '\n';
  }
  out_.flush();
  lastPrint_ = now;
}

}  // namespace kwq::tool
