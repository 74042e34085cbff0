// Machine-readable zones read from synthetic documents: characters right on stills by
// character height, the live read rate on the handheld path, wrong-valid reads, the check-digit
// correction tally and the cost per 1280 x 720 frame, beside Tesseract 5 (eng, symbol set
// restricted to the 37 MRZ symbols, one block of text) reading the zone's own box cut out
// upright from the same stills.
//
// Stills: a passport page or ID card back (alternating) for a random holder, anywhere in a
// 1280 x 720 picture over the desk, turned 0..360 degrees, tilted up to 20 degrees, blurred
// (sigma 0.3..0.9), noisy (1..3 gray levels), sized so capitals are 8 to 20 pixels high.
// Live: the passport and ID card presets (handheld path, dim spans, glare, blur, noise) with a
// new holder per scene; a zone "whole and sharp" is one whose four corners are in the picture
// with capitals of 7 pixels or more and no glare on the document; the read rate counts the
// entries into view that got a valid read within 30 frames (1 s).
//
//   cmake --build build --target mrz_read_rate && build/bench/mrz_read_rate [stills] [frames]
//
// stills (default 40) per character height; frames (default 10800) live frames in all; 0
// skips either part.

#include <tesseract/baseapi.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "kwqimage/MRZ.h"
#include "platform/vision/mrz_reader.h"
#include "synthetic/renderer.h"

namespace {

constexpr int kWidth = 1280, kHeight = 720;

double cpuMs() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

char digit(const std::string& s) {
  return static_cast<char>('0' + kwq::mrzCheckDigit(s));
}

std::string pick(std::mt19937& rng, const char* set, int n) {
  const std::string chars(set);
  std::string out;
  for (int i = 0; i < n; ++i) out += chars[rng() % chars.size()];
  return out;
}

std::string date(std::mt19937& rng, int y0, int y1) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%02d%02d%02d", static_cast<int>(y0 + rng() % (y1 - y0)) % 100,
                static_cast<int>(1 + rng() % 12), static_cast<int>(1 + rng() % 28));
  return buf;
}

std::string name(std::mt19937& rng) {
  std::string n = pick(rng, "ABCDEFGHIJKLMNOPQRSTUVWXYZ", 4 + rng() % 8) + "<<" +
                  pick(rng, "ABCDEFGHIJKLMNOPQRSTUVWXYZ", 3 + rng() % 6);
  if (rng() % 2) n += "<" + pick(rng, "ABCDEFGHIJKLMNOPQRSTUVWXYZ", 3 + rng() % 6);
  return n;
}

// A valid zone for a random holder of Utopia: TD3 for a passport, TD1 for a card.
std::string randomZone(std::mt19937& rng, bool passport) {
  const char* alnum = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  const std::string number = pick(rng, alnum, 9), birth = date(rng, 1940, 2010),
                    expiry = date(rng, 2027, 2036), sex = rng() % 2 ? "F" : "M";
  if (passport) {
    std::string l1 = "P<UTO" + name(rng);
    l1.resize(44, '<');
    std::string personal = pick(rng, alnum, rng() % 10);
    personal.resize(14, '<');
    std::string l2 = number + digit(number) + "UTO" + birth + digit(birth) + sex + expiry +
                     digit(expiry) + personal + digit(personal);
    l2 += digit(l2.substr(0, 10) + l2.substr(13, 7) + l2.substr(21, 22));
    return l1 + "\n" + l2;
  }
  std::string l1 = "I<UTO" + number + digit(number) + pick(rng, alnum, rng() % 8);
  l1.resize(30, '<');
  std::string l2 = birth + digit(birth) + sex + expiry + digit(expiry) + "UTO";
  l2.resize(29, '<');
  l2 += digit(l1.substr(5, 25) + l2.substr(0, 7) + l2.substr(8, 7) + l2.substr(18, 11));
  std::string l3 = name(rng);
  l3.resize(30, '<');
  return l1 + "\n" + l2 + "\n" + l3;
}

struct Frame {
  cv::Mat bgra, gray;
  kwq::SyntheticFrameTruth truth;
};

Frame render(kwq::synthetic::SceneRenderer& r, uint64_t index) {
  Frame f;
  f.bgra.create(kHeight, kWidth, CV_8UC4);
  f.truth = r.render(index, {}, f.bgra.data, f.bgra.step[0]);
  cv::cvtColor(f.bgra, f.gray, cv::COLOR_BGRA2GRAY);
  return f;
}

const kwq::SyntheticMRZTruth* zoneOf(const kwq::SyntheticFrameTruth& t) {
  for (const auto& p : t.props)
    if (p.mrz) return &*p.mrz;
  return nullptr;
}

int charsRight(const std::vector<std::string>& read, const std::string& truth) {
  std::vector<std::string> lines(1);
  for (char c : truth)
    if (c == '\n')
      lines.emplace_back();
    else
      lines.back().push_back(c);
  int right = 0;
  for (size_t l = 0; l < lines.size() && l < read.size(); ++l)
    for (size_t i = 0; i < lines[l].size() && i < read[l].size(); ++i)
      right += lines[l][i] == read[l][i];
  return right;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string s;
  for (size_t i = 0; i < lines.size(); ++i) s += (i ? "\n" : "") + lines[i];
  return s;
}

// Tesseract on the zone's box cut out upright (from the truth's corners, with a margin of a
// character), the way a user would feed a general OCR engine once the zone is found.
std::vector<std::string> tesseractRead(tesseract::TessBaseAPI& api, const cv::Mat& gray,
                                       const kwq::SyntheticMRZTruth& z) {
  const cv::Point2f src[3] = {
      {static_cast<float>(z.corners[0].x), static_cast<float>(z.corners[0].y)},
      {static_cast<float>(z.corners[1].x), static_cast<float>(z.corners[1].y)},
      {static_cast<float>(z.corners[3].x), static_cast<float>(z.corners[3].y)}};
  const double wPx = std::hypot(src[1].x - src[0].x, src[1].y - src[0].y);
  const double hPx = std::hypot(src[2].x - src[0].x, src[2].y - src[0].y);
  // Upright at 32-pixel capitals, where Tesseract reads best.
  const double k = 32.0 / z.characterHeight;
  const double m = 32.0;
  const cv::Point2f dst[3] = {{static_cast<float>(m), static_cast<float>(m)},
                              {static_cast<float>(m + wPx * k), static_cast<float>(m)},
                              {static_cast<float>(m), static_cast<float>(m + hPx * k)}};
  cv::Mat crop;
  cv::warpAffine(gray, crop, cv::getAffineTransform(src, dst),
                 cv::Size(static_cast<int>(wPx * k + 2 * m), static_cast<int>(hPx * k + 2 * m)),
                 cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  api.SetImage(crop.data, crop.cols, crop.rows, 1, static_cast<int>(crop.step[0]));
  char* text = api.GetUTF8Text();
  std::vector<std::string> lines;
  std::string cur;
  for (const char* c = text; c && *c; ++c) {
    if (*c == '\n') {
      if (!cur.empty()) lines.push_back(cur);
      cur.clear();
    } else if (*c != ' ') {
      cur += *c;
    }
  }
  if (!cur.empty()) lines.push_back(cur);
  delete[] text;
  return lines;
}

void stills(int perHeight, tesseract::TessBaseAPI* tess) {
  std::printf("\nStills: 1280x720, turned 0-360, tilt <= 20, passport and ID card alternating\n");
  std::printf("%-7s %6s %7s %9s %7s %7s %7s %8s %8s %9s %9s\n", "cap px", "docs", "found",
              "chars ok", "valid", "wrong-v", "rescued", "refused", "ms", "tess ok", "tess ms");
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  long allChars = 0, allRight = 0;
  for (int cap = 8; cap <= 20; cap += 2) {
    int docs = 0, found = 0, valid = 0, wrongValid = 0, rescued = 0, refused = 0;
    long chars = 0, right = 0, tessRight = 0;
    double ms = 0, tessMs = 0;
    for (int i = 0; i < perHeight; ++i) {
      const bool passport = i % 2 == 0;
      kwq::SyntheticScene scene;
      scene.seed = rng();
      scene.blurSigma = 0.3 + 0.6 * u(rng);
      scene.noiseSigma = 1.0 + 2.0 * u(rng);
      kwq::SyntheticProp doc;
      doc.kind = passport ? kwq::SyntheticPropKind::Passport : kwq::SyntheticPropKind::IdCardBack;
      doc.codeText.clear();
      doc.mrzText = randomZone(rng, passport);
      // Capitals 2.4 mm high on a page 125 (card 86) mm wide.
      const double pageMm = passport ? 125.0 : 86.0;
      doc.size = cap * pageMm / 2.4 / kWidth;
      doc.rollDegrees = 360.0 * u(rng);
      doc.yawDegrees = 20.0 * (u(rng) - 0.5);
      doc.pitchDegrees = 20.0 * (u(rng) - 0.5);
      // Wherever it fits whole.
      const double half = 0.5 * doc.size * std::sqrt(1.0 + 0.5) * kWidth;
      doc.at = {std::clamp(0.5 + 0.3 * (u(rng) - 0.5), half / kWidth, 1 - half / kWidth),
                0.5 + 0.1 * (u(rng) - 0.5)};
      scene.props.push_back(doc);
      kwq::synthetic::SceneRenderer r(scene, kWidth, kHeight);
      const Frame f = render(r, 0);
      const kwq::SyntheticMRZTruth* z = zoneOf(f.truth);
      if (!z || !z->fullyVisible) continue;
      ++docs;
      const int n = static_cast<int>(doc.mrzText.size()) - (passport ? 1 : 2);
      chars += n;
      const double t0 = cpuMs();
      const auto lines = kwq::platform::readMRZLines(f.gray.data, kWidth, kHeight, f.gray.step[0]);
      ms += cpuMs() - t0;
      if (lines) {
        ++found;
        right += charsRight(lines->lines, doc.mrzText);
        const auto p =
            kwq::parseMRZ(joined(lines->lines), kwq::MRZDate{2026, 11, 25}, lines->uncertain);
        if (p.record && p.record->valid &&
            kwq::platform::unguardedCharactersClear(*lines, *p.record)) {
          ++valid;
          if (joined(p.record->lines) != doc.mrzText) ++wrongValid;
          if (!p.record->corrected.empty()) ++rescued;
        } else {
          ++refused;
        }
      }
      if (tess) {
        const double t1 = cpuMs();
        tessRight += charsRight(tesseractRead(*tess, f.gray, *z), doc.mrzText);
        tessMs += cpuMs() - t1;
      }
    }
    allChars += chars;
    allRight += right;
    std::printf("%-7d %6d %6.1f%% %8.2f%% %6.1f%% %7d %7d %8d %8.2f %8.2f%% %9.1f\n", cap, docs,
                100.0 * found / std::max(docs, 1), 100.0 * right / std::max<long>(chars, 1),
                100.0 * valid / std::max(docs, 1), wrongValid, rescued, refused,
                ms / std::max(docs, 1), 100.0 * tessRight / std::max<long>(chars, 1),
                tessMs / std::max(docs, 1));
  }
  std::printf("all     chars right %.3f%% of %ld\n", 100.0 * allRight / std::max<long>(allChars, 1),
              allChars);
}

void live(int frames) {
  std::printf(
      "\nLive: handheld path, dim 10%%, glare 10%%, blur 0.5, noise 2; a new holder "
      "every 600 frames\n");
  std::mt19937 rng(777);
  int entries = 0, readInSecond = 0, wholeFrames = 0, validFrames = 0, wrongValid = 0,
      invalidReads = 0, confirmedInSecond = 0, confirmedWrong = 0, confirmedFrames = 0;
  std::vector<double> withMs, withoutMs;
  for (int start = 0; start < frames; start += 600) {
    const bool passport = (start / 600) % 2 == 0;
    kwq::SyntheticScene scene = kwq::SyntheticScene::document(!passport);
    scene.seed = rng();
    scene.props[0].mrzText = randomZone(rng, passport);
    const std::string truthText = scene.props[0].mrzText;
    kwq::synthetic::SceneRenderer r(scene, kWidth, kHeight);
    int sinceEntry = -1;  // frames since the zone came whole into view; -1: out
    bool gotThisEntry = false, confirmedThisEntry = false;
    std::string lastValid;  // the last valid read, and its frame
    int lastValidFrame = -1000;
    for (int i = 0; i < 600 && start + i < frames; ++i) {
      const Frame f = render(r, static_cast<uint64_t>(i));
      const kwq::SyntheticMRZTruth* z = zoneOf(f.truth);
      bool glare = false;
      for (const auto& p : f.truth.props) glare = glare || p.glareVisible;
      const bool whole = z && z->fullyVisible && z->characterHeight >= 7.0 && !glare;
      const double t0 = cpuMs();
      const auto lines = kwq::platform::readMRZLines(f.gray.data, kWidth, kHeight, f.gray.step[0]);
      const double ms = cpuMs() - t0;
      (z && z->fullyVisible ? withMs : withoutMs).push_back(ms);
      bool valid = false, confirmed = false;
      if (lines) {
        const auto p =
            kwq::parseMRZ(joined(lines->lines), kwq::MRZDate{2026, 11, 25}, lines->uncertain);
        if (p.record && p.record->valid &&
            kwq::platform::unguardedCharactersClear(*lines, *p.record)) {
          valid = true;
          const std::string text = joined(p.record->lines);
          if (text != truthText) {
            ++wrongValid;
            std::fprintf(stderr, "wrong valid read:\n%s\nprinted:\n%s\n", text.c_str(),
                         truthText.c_str());
          }
          // As the engine reports it with two agreeing reads within 2 s.
          confirmed = text == lastValid && i - lastValidFrame <= 60;
          if (confirmed) {
            ++confirmedFrames;
            if (text != truthText) ++confirmedWrong;
          }
          lastValid = text;
          lastValidFrame = i;
        } else {
          ++invalidReads;
        }
      }
      if (whole) {
        ++wholeFrames;
        validFrames += valid;
        if (sinceEntry < 0) {
          sinceEntry = 0;
          gotThisEntry = confirmedThisEntry = false;
          ++entries;
        }
        if (confirmed && !confirmedThisEntry && sinceEntry < 30) {
          confirmedThisEntry = true;
          ++confirmedInSecond;
        }
        if (valid && !gotThisEntry && sinceEntry < 30) {
          gotThisEntry = true;
          ++readInSecond;
        }
        ++sinceEntry;
      } else if (!(z && z->fullyVisible)) {
        sinceEntry = -1;  // left the picture: the next whole frame is a new entry
      }
    }
  }
  auto median = [](std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
  };
  std::printf("frames %d, zone whole and sharp in %d, valid read on %d (%.1f%%)\n", frames,
              wholeFrames, validFrames, 100.0 * validFrames / std::max(wholeFrames, 1));
  std::printf("entries into view %d, valid read within 1 s %d (%.1f%%)\n", entries, readInSecond,
              100.0 * readInSecond / std::max(entries, 1));
  std::printf("wrong characters reported valid: %d frames; reads refused as not valid: %d\n",
              wrongValid, invalidReads);
  std::printf(
      "two agreeing valid reads within 2 s: %d frames, %d of them wrong; within 1 s of "
      "entry %d (%.1f%%)\n",
      confirmedFrames, confirmedWrong, confirmedInSecond,
      100.0 * confirmedInSecond / std::max(entries, 1));
  std::printf(
      "cost per frame (median, one core): zone in view %.2f ms (%zu frames), "
      "none %.2f ms (%zu frames)\n",
      median(withMs), withMs.size(), median(withoutMs), withoutMs.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // rows as they come: a long run shows progress
  const int perHeight = argc > 1 ? std::max(0, std::atoi(argv[1])) : 40;
  const int frames = argc > 2 ? std::max(0, std::atoi(argv[2])) : 10800;
  if (!kwq::platform::mrzRecogniserReady()) {
    std::fprintf(stderr, "the OCR-B font is not installed (fonts-ocr-b)\n");
    return 1;
  }
  tesseract::TessBaseAPI tess;
  const bool haveTess = tess.Init(nullptr, "eng") == 0;
  if (haveTess) {
    tess.SetVariable("tessedit_char_whitelist", "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ<");
    tess.SetPageSegMode(tesseract::PSM_SINGLE_BLOCK);
  }
  if (perHeight > 0) stills(perHeight, haveTess ? &tess : nullptr);
  if (frames > 0) live(frames);
  return 0;
}
