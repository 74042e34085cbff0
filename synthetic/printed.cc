#include "synthetic/printed.h"

#define ZX_USE_UTF8
#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>
#include <cairo.h>
#include <glib.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

#include <opencv2/imgproc.hpp>

#include "platform/draw/cairo_handles.h"

namespace kwq::synthetic {
namespace {

// Every colour stays at or below 200 in each channel: the two-pi focus measure skips blocks
// holding a pixel of 200 or more, and the card must count.
struct Rgb {
  int r, g, b;
};
constexpr Rgb kStock{192, 189, 181};
constexpr Rgb kGuilloche{172, 178, 186};
constexpr Rgb kBand{150, 174, 196};
constexpr Rgb kNavy{28, 46, 92};
constexpr Rgb kLabel{96, 100, 112};
constexpr Rgb kInk{24, 24, 30};
constexpr Rgb kBars{26, 26, 30};

// Where things sit on the card, in millimetres.
// The code takes the lower half: zxing-cpp reads a PDF417 whose rows are skewed by the card's
// roll only while rows are tall next to a codeword's width, so rows get four to five modules,
// and modules must be as wide as the card allows: a licence record's symbol is 256 modules
// wide, its modules under two pixels on a card a third of a 1280-pixel picture wide.
const cv::Rect2d kBandMm{2.5, 2.0, 81.0, 5.0};
const cv::Rect2d kPhotoMm{4.0, 8.5, 12.0, 15.2};
constexpr double kTextLeftMm = 18.5;
const cv::Rect2d kCodeBoxMm{2.5, 24.5, 81.0, 26.5};
constexpr int kQuietModules = 2;
constexpr double kMinRowModules = 4.0, kMaxRowModules = 5.0;

using Surface = platform::CairoSurface;
using Cairo = platform::CairoContext;
using Font = platform::PangoFont;
using Layout = platform::PangoLayoutHandle;

void setColor(cairo_t* cr, Rgb c) {
  cairo_set_source_rgb(cr, c.r / 255.0, c.g / 255.0, c.b / 255.0);
}

void fillRect(cairo_t* cr, const cv::Rect2d& r, Rgb c) {
  setColor(cr, c);
  cairo_rectangle(cr, r.x, r.y, r.width, r.height);
  cairo_fill(cr);
}

void fillEllipse(cairo_t* cr, double cx, double cy, double rx, double ry, Rgb c) {
  cairo_save(cr);
  cairo_translate(cr, cx, cy);
  cairo_scale(cr, rx, ry);
  cairo_arc(cr, 0.0, 0.0, 1.0, 0.0, 2.0 * M_PI);
  cairo_restore(cr);
  setColor(cr, c);
  cairo_fill(cr);
}

// Text with its top-left corner (top-right with `alignRight`) at (x, y) mm, `size` mm high
// (the font's em).
void drawText(cairo_t* cr, const char* text, double x, double y, double size, bool bold, Rgb c,
              bool alignRight = false) {
  Layout layout(pango_cairo_create_layout(cr));
  // Unhinted outlines: hinting would snap glyphs to a grid meant for screens, not to texels.
  cairo_font_options_t* options = cairo_font_options_create();
  cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
  cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_NONE);
  cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
  PangoContext* context = pango_layout_get_context(layout.get());
  pango_cairo_context_set_font_options(context, options);
  cairo_font_options_destroy(options);
  // We draw in millimetres; Pango would otherwise round glyph positions to whole ones.
  pango_context_set_round_glyph_positions(context, FALSE);
  pango_layout_context_changed(layout.get());
  Font font(pango_font_description_from_string(bold ? "Sans Bold" : "Sans"));
  pango_font_description_set_absolute_size(font.get(), size * PANGO_SCALE);
  pango_layout_set_font_description(layout.get(), font.get());
  pango_layout_set_text(layout.get(), text, -1);
  if (alignRight) {
    PangoRectangle logical;
    pango_layout_get_extents(layout.get(), nullptr, &logical);
    x -= static_cast<double>(logical.width) / PANGO_SCALE;
  }
  setColor(cr, c);
  cairo_move_to(cr, x, y);
  pango_cairo_show_layout(cr, layout.get());
}

// Fine wavy lines in a slightly bluer tone, as security printing has; kept off the code.
void drawGuilloche(cairo_t* cr, double width = kCardWidthMm, double height = kCardHeightMm,
                   const cv::Rect2d& keepClear = kCodeBoxMm, int waves = 40) {
  cairo_save(cr);
  cairo_rectangle(cr, 0.0, 0.0, width, height);
  cairo_rectangle(cr, keepClear.x, keepClear.y, keepClear.width, keepClear.height);
  cairo_set_fill_rule(cr, CAIRO_FILL_RULE_EVEN_ODD);
  cairo_clip(cr);
  setColor(cr, kGuilloche);
  cairo_set_line_width(cr, 0.12);
  for (int k = -4; k < waves; ++k) {
    for (double x = -1.0; x <= width + 1.0; x += 0.5) {
      const double y =
          k * 1.5 + 0.35 * x + 1.1 * std::sin(x / 5.0 + k * 0.45) + 0.5 * std::sin(x / 1.7 + k);
      if (x == -1.0)
        cairo_move_to(cr, x, y - 12.0);
      else
        cairo_line_to(cr, x, y - 12.0);
    }
    cairo_stroke(cr);
  }
  cairo_restore(cr);
}

// A plain head-and-shoulders portrait, drawn in an 18 x 23 box scaled into the photo area.
void drawPortrait(cairo_t* cr, const cv::Rect2d& box = kPhotoMm) {
  cairo_save(cr);
  cairo_translate(cr, box.x, box.y);
  cairo_scale(cr, box.width / 18.0, box.height / 23.0);
  const cv::Rect2d p{0.0, 0.0, 18.0, 23.0};
  cairo_rectangle(cr, p.x, p.y, p.width, p.height);
  cairo_clip(cr);
  // Backdrop with a soft vertical gradient.
  cairo_pattern_t* backdrop = cairo_pattern_create_linear(0.0, p.y, 0.0, p.y + p.height);
  cairo_pattern_add_color_stop_rgb(backdrop, 0.0, 150 / 255.0, 164 / 255.0, 180 / 255.0);
  cairo_pattern_add_color_stop_rgb(backdrop, 1.0, 118 / 255.0, 132 / 255.0, 150 / 255.0);
  cairo_set_source(cr, backdrop);
  cairo_paint(cr);
  cairo_pattern_destroy(backdrop);
  const double cx = p.x + p.width / 2.0;
  fillEllipse(cr, cx, p.y + p.height + 1.5, 9.5, 7.5, {58, 62, 84});  // shoulders
  fillRect(cr, {cx - 2.2, p.y + 13.0, 4.4, 5.0}, {170, 132, 110});    // neck
  fillEllipse(cr, cx, p.y + 9.2, 5.6, 6.4, {66, 46, 36});             // hair
  fillEllipse(cr, cx, p.y + 10.6, 4.7, 5.9, {190, 150, 126});         // face
  fillEllipse(cr, cx - 1.8, p.y + 9.8, 0.75, 0.45, {40, 34, 32});     // eyes
  fillEllipse(cr, cx + 1.8, p.y + 9.8, 0.75, 0.45, {40, 34, 32});
  setColor(cr, {120, 70, 66});  // mouth
  cairo_set_line_width(cr, 0.35);
  cairo_arc(cr, cx, p.y + 12.2, 1.5, 0.2 * M_PI, 0.8 * M_PI);
  cairo_stroke(cr);
  setColor(cr, {150, 112, 96});  // nose
  cairo_move_to(cr, cx, p.y + 10.2);
  cairo_line_to(cr, cx - 0.5, p.y + 12.0);
  cairo_line_to(cr, cx + 0.3, p.y + 12.1);
  cairo_stroke(cr);
  cairo_restore(cr);
}

void drawFields(cairo_t* cr) {
  struct Field {
    const char* label;
    const char* value;
    double x, y;
  };
  const Field fields[] = {
      {"SURNAME", "DOE", kTextLeftMm, 8.3},
      {"NATIONALITY", "KWQ", 66.0, 8.3},
      {"GIVEN NAMES", "JANE ALEXANDRA", kTextLeftMm, 12.0},
      {"DATE OF BIRTH", "12.03.1988", kTextLeftMm, 15.7},
      {"SEX", "F", 44.0, 15.7},
      {"EXPIRY", "30.06.2032", 66.0, 15.7},
      {"DOCUMENT No.", "K47Q0193552", kTextLeftMm, 19.4},
  };
  for (const Field& f : fields) {
    drawText(cr, f.label, f.x, f.y, 1.1, false, kLabel);
    drawText(cr, f.value, f.x, f.y + 1.15, 2.0, true, kInk);
  }
  // A signature beside the document number.
  setColor(cr, {40, 52, 110});
  cairo_set_line_width(cr, 0.28);
  cairo_move_to(cr, 50.0, 23.0);
  cairo_curve_to(cr, 52.0, 19.6, 53.0, 24.0, 55.5, 21.4);
  cairo_curve_to(cr, 57.5, 19.4, 58.5, 23.4, 61.5, 21.6);
  cairo_curve_to(cr, 63.5, 20.6, 66.0, 22.5, 70.0, 21.0);
  cairo_stroke(cr);
}

// The symbol's logical rows: the writer repeats each row a few times to give rows their
// height, and neighbouring rows of a PDF417 symbol always differ (their row indicators do).
std::vector<int> logicalRows(const ZXing::BitMatrix& m) {
  std::vector<int> rows;
  for (int y = 0; y < m.height(); ++y) {
    bool same = y > 0;
    for (int x = 0; same && x < m.width(); ++x) same = m.get(x, y) == m.get(x, y - 1);
    if (!same) rows.push_back(y);
  }
  return rows;
}

std::optional<ZXing::BitMatrix> encode(SyntheticCodeType type, const std::string& text) {
  if (text.empty()) return std::nullopt;
  try {
    const auto format =
        type == SyntheticCodeType::QR ? ZXing::BarcodeFormat::QRCode : ZXing::BarcodeFormat::PDF417;
    ZXing::BitMatrix m = ZXing::MultiFormatWriter(format)
                             .setMargin(0)
                             .setEncoding(ZXing::CharacterSet::UTF8)
                             .encode(text, 0, 0);
    if (m.width() <= 0 || m.height() <= 0) return std::nullopt;
    return m;
  } catch (...) {
    // Too long for one symbol, or text the writer cannot encode: the prop goes without.
    return std::nullopt;
  }
}

std::optional<ZXing::BitMatrix> encodePdf417(const std::string& text) {
  return encode(SyntheticCodeType::PDF417, text);
}

// Where the symbol goes: as large as the code box allows with rows kMinRowModules to
// kMaxRowModules modules high, centred. The outline leaves out the quiet zone.
struct CodePlacement {
  std::vector<int> rows;  // the matrix rows that start the symbol's rows
  double module = 0.0, rowHeight = 0.0;
  cv::Rect2d outline;
};

CodePlacement placeCode(const ZXing::BitMatrix& m) {
  CodePlacement p;
  p.rows = logicalRows(m);
  const double cols = m.width(), nRows = static_cast<double>(p.rows.size());
  const double q = kQuietModules;
  p.module = std::min(kCodeBoxMm.width / (cols + 2.0 * q),
                      kCodeBoxMm.height / (nRows * kMinRowModules + 2.0 * q));
  p.rowHeight =
      p.module * std::min(kMaxRowModules, (kCodeBoxMm.height / p.module - 2.0 * q) / nRows);
  p.outline = {kCodeBoxMm.x + (kCodeBoxMm.width - cols * p.module) / 2.0,
               kCodeBoxMm.y + (kCodeBoxMm.height - nRows * p.rowHeight) / 2.0, cols * p.module,
               nRows * p.rowHeight};
  return p;
}

void drawCode(cairo_t* cr, const ZXing::BitMatrix& m) {
  const CodePlacement place = placeCode(m);
  const std::vector<int>& rows = place.rows;
  const double module = place.module, rowHeight = place.rowHeight;
  const cv::Rect2d& code = place.outline;
  setColor(cr, kBars);
  for (size_t r = 0; r < rows.size(); ++r) {
    for (int x = 0; x < m.width();) {
      if (!m.get(x, rows[r])) {
        ++x;
        continue;
      }
      int end = x;
      while (end < m.width() && m.get(end, rows[r])) ++end;
      cairo_rectangle(cr, code.x + x * module, code.y + r * rowHeight, (end - x) * module,
                      rowHeight);
      x = end;
    }
  }
  cairo_fill(cr);
}

// A sticker's quiet zone in modules: what each symbology's readers expect at the least.
constexpr double stickerQuiet(SyntheticCodeType type) {
  return type == SyntheticCodeType::QR ? 4.0 : 2.0;
}

// Machine-readable zones, as ICAO 9303 prints them: OCR-B at ten characters to the inch
// (2.54 mm pitch), capitals about 2.4 mm high, lines 4.23 mm apart (six to the inch), the
// last line's baseline about 4.5 mm above the page's lower edge, the zone centred across.
constexpr double kMRZPitchMm = 2.54;
constexpr double kMRZCapHeightMm = 2.4;
constexpr double kMRZLineMm = 4.23;
constexpr double kMRZBottomMm = 4.5;

std::vector<std::string> mrzLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string cur;
  for (char c : text + "\n") {
    if (c == '\n') {
      if (!cur.empty()) lines.push_back(cur);
      cur.clear();
    } else if (c != '\r') {
      cur += c;
    }
  }
  return lines;
}

cv::Size2d documentSize(SyntheticPropKind kind) {
  return kind == SyntheticPropKind::Passport ? cv::Size2d(kPassportWidthMm, kPassportHeightMm)
                                             : cv::Size2d(kCardWidthMm, kCardHeightMm);
}

// The text block of the zone: from the first character cell's left edge and the first line's
// cap top to the widest line's last cell and the last line's baseline.
cv::Rect2d mrzBlock(SyntheticPropKind kind, const std::vector<std::string>& lines) {
  if (lines.empty()) return {};
  size_t longest = 0;
  for (const std::string& l : lines) longest = std::max(longest, l.size());
  const cv::Size2d page = documentSize(kind);
  const double width = longest * kMRZPitchMm;
  const double baseline = page.height - kMRZBottomMm;
  const double top = baseline - (lines.size() - 1) * kMRZLineMm - kMRZCapHeightMm;
  return {(page.width - width) / 2.0, top, width, baseline - top};
}

// OCR-B's em size that gives capitals kMRZCapHeightMm high, and the glyphs' baseline offset,
// measured once from the font itself.
struct OcrbMetrics {
  double emMm = 3.4;
  double baselineRatio = 0.8;  // baseline below the layout's top, in ems
  double capRatio = 0.7;
};

const OcrbMetrics& ocrbMetrics(cairo_t* cr) {
  static const OcrbMetrics metrics = [cr] {
    OcrbMetrics m;
    Layout layout(pango_cairo_create_layout(cr));
    Font font(pango_font_description_new());
    pango_font_description_set_family(font.get(), "OCR B");
    pango_font_description_set_absolute_size(font.get(), 100.0 * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    pango_layout_set_text(layout.get(), "H", -1);
    PangoRectangle ink, logical;
    pango_layout_get_extents(layout.get(), &ink, &logical);
    const double cap = static_cast<double>(ink.height) / PANGO_SCALE;
    const double base = static_cast<double>(pango_layout_get_baseline(layout.get())) / PANGO_SCALE;
    if (cap > 10.0 && base > 10.0) {
      m.capRatio = cap / 100.0;
      m.baselineRatio = base / 100.0;
      m.emMm = kMRZCapHeightMm / m.capRatio;
    }
    return m;
  }();
  return metrics;
}

// Each character set in its own cell so the pitch is exact whatever the font's advance.
void drawMRZ(cairo_t* cr, SyntheticPropKind kind, const std::vector<std::string>& lines) {
  const cv::Rect2d block = mrzBlock(kind, lines);
  const OcrbMetrics& m = ocrbMetrics(cr);
  Layout layout(pango_cairo_create_layout(cr));
  cairo_font_options_t* options = cairo_font_options_create();
  cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
  cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_NONE);
  cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
  PangoContext* context = pango_layout_get_context(layout.get());
  pango_cairo_context_set_font_options(context, options);
  cairo_font_options_destroy(options);
  pango_context_set_round_glyph_positions(context, FALSE);
  pango_layout_context_changed(layout.get());
  Font font(pango_font_description_new());
  pango_font_description_set_family(font.get(), "OCR B");
  pango_font_description_set_absolute_size(font.get(), m.emMm * PANGO_SCALE);
  pango_layout_set_font_description(layout.get(), font.get());
  setColor(cr, kInk);
  for (size_t li = 0; li < lines.size(); ++li) {
    const double baseline = block.y + kMRZCapHeightMm + li * kMRZLineMm;
    for (size_t i = 0; i < lines[li].size(); ++i) {
      const char text[2] = {lines[li][i], 0};
      pango_layout_set_text(layout.get(), text, 1);
      PangoRectangle logical;
      pango_layout_get_extents(layout.get(), nullptr, &logical);
      const double advance = static_cast<double>(logical.width) / PANGO_SCALE;
      cairo_move_to(cr, block.x + i * kMRZPitchMm + (kMRZPitchMm - advance) / 2.0,
                    baseline - m.baselineRatio * m.emMm);
      pango_cairo_show_layout(cr, layout.get());
    }
  }
}

void drawPassportPage(cairo_t* cr, const std::vector<std::string>& mrz) {
  const cv::Rect2d zone = mrzBlock(SyntheticPropKind::Passport, mrz);
  drawGuilloche(cr, kPassportWidthMm, kPassportHeightMm,
                {0.0, zone.y - 2.0, kPassportWidthMm, kPassportHeightMm}, 120);
  fillRect(cr, {4.0, 3.0, 117.0, 7.0}, kBand);
  drawText(cr, "PASSPORT", 6.0, 3.6, 4.2, true, kNavy);
  drawText(cr, "UTOPIA", 119.0, 4.4, 3.0, true, kNavy, true);
  drawPortrait(cr, {6.0, 14.0, 32.0, 40.5});
  struct Field {
    const char* label;
    const char* value;
    double x, y;
  };
  const Field fields[] = {
      {"TYPE", "P", 44.0, 13.0},
      {"CODE", "UTO", 60.0, 13.0},
      {"PASSPORT No.", "X4RT71J05", 84.0, 13.0},
      {"SURNAME", "LINDQVIST", 44.0, 20.0},
      {"GIVEN NAMES", "MAREN ELISE", 44.0, 27.0},
      {"NATIONALITY", "UTOPIAN", 44.0, 34.0},
      {"DATE OF BIRTH", "14 MAR 1987", 44.0, 41.0},
      {"SEX", "F", 84.0, 41.0},
      {"DATE OF EXPIRY", "30 SEP 2034", 44.0, 48.0},
      {"AUTHORITY", "UTOPIA CITY", 84.0, 48.0},
  };
  for (const Field& f : fields) {
    drawText(cr, f.label, f.x, f.y, 1.6, false, kLabel);
    drawText(cr, f.value, f.x, f.y + 1.8, 3.0, true, kInk);
  }
  setColor(cr, {40, 52, 110});
  cairo_set_line_width(cr, 0.35);
  cairo_move_to(cr, 8.0, 62.0);
  cairo_curve_to(cr, 12.0, 56.0, 14.0, 64.0, 19.0, 59.0);
  cairo_curve_to(cr, 23.0, 55.0, 25.0, 62.0, 32.0, 58.5);
  cairo_stroke(cr);
  if (!mrz.empty()) drawMRZ(cr, SyntheticPropKind::Passport, mrz);
}

void drawCardBack(cairo_t* cr, const std::vector<std::string>& mrz) {
  const cv::Rect2d zone = mrzBlock(SyntheticPropKind::IdCardBack, mrz);
  drawGuilloche(cr, kCardWidthMm, kCardHeightMm, {0.0, zone.y - 1.5, kCardWidthMm, kCardHeightMm},
                40);
  fillRect(cr, {3.0, 3.0, 80.0, 4.0}, kBand);
  drawText(cr, "UTOPIA  IDENTITY CARD", 4.5, 3.4, 2.4, true, kNavy);
  drawText(cr, "ADDRESS", 4.5, 9.5, 1.2, false, kLabel);
  drawText(cr, "12 HARBOUR LANE, UTOPIA CITY", 4.5, 10.9, 2.0, true, kInk);
  drawText(cr, "HEIGHT", 4.5, 14.5, 1.2, false, kLabel);
  drawText(cr, "168 cm", 4.5, 15.9, 2.0, true, kInk);
  drawText(cr, "ISSUED", 30.0, 14.5, 1.2, false, kLabel);
  drawText(cr, "30.06.2021", 30.0, 15.9, 2.0, true, kInk);
  drawPortrait(cr, {68.0, 9.0, 12.0, 15.2});
  if (!mrz.empty()) drawMRZ(cr, SyntheticPropKind::IdCardBack, mrz);
}
}  // namespace

void addCoarserLevels(Texture& texture, int smallest) {
  while (!texture.levels.empty() && texture.levels.back().cols / 2 >= smallest &&
         texture.levels.back().rows / 2 >= 1) {
    const cv::Mat& finer = texture.levels.back();
    cv::Mat coarser;
    cv::resize(finer, coarser, cv::Size(finer.cols / 2, finer.rows / 2), 0.0, 0.0, cv::INTER_AREA);
    texture.levels.push_back(coarser);
  }
}

PrintedLayout cardLayout(const std::string& codeText) {
  const auto code = encodePdf417(codeText);
  return {{kCardWidthMm, kCardHeightMm}, code ? placeCode(*code).outline : cv::Rect2d(), {}};
}

PrintedLayout stickerLayout(SyntheticCodeType type, const std::string& codeText) {
  const auto code = encode(type, codeText);
  if (!code) return {{20.0, 20.0}, {}, {}};
  const double q = stickerQuiet(type);
  return {{code->width() + 2.0 * q, code->height() + 2.0 * q},
          {q, q, static_cast<double>(code->width()), static_cast<double>(code->height())},
          {}};
}

Texture makeStickerTexture(SyntheticCodeType type, const std::string& codeText,
                           double texelsPerModule) {
  const int tpm = static_cast<int>(
      std::round(std::clamp(std::isfinite(texelsPerModule) ? texelsPerModule : 4.0, 2.0, 16.0)));
  const PrintedLayout layout = stickerLayout(type, codeText);
  Texture texture;
  texture.units = layout.units;
  // White label stock, kept under 200 like the card so focus measures count it.
  cv::Mat bgra(static_cast<int>(layout.units.height) * tpm,
               static_cast<int>(layout.units.width) * tpm, CV_8UC4, cv::Scalar(196, 198, 198, 255));
  if (const auto code = encode(type, codeText)) {
    const int q = static_cast<int>(layout.outline.x);
    for (int y = 0; y < code->height(); ++y)
      for (int x = 0; x < code->width(); ++x)
        if (code->get(x, y))
          bgra(cv::Rect((x + q) * tpm, (y + q) * tpm, tpm, tpm)).setTo(cv::Scalar(30, 26, 26, 255));
  }
  texture.levels.push_back(bgra);
  addCoarserLevels(texture, 16);
  return texture;
}

Texture makeCardTexture(const std::string& codeText, double pixelsPerMm) {
  const double ppm =
      std::round(std::clamp(std::isfinite(pixelsPerMm) ? pixelsPerMm : 4.0, 4.0, 24.0));
  const int cols = static_cast<int>(kCardWidthMm * ppm);
  const int rows = static_cast<int>(kCardHeightMm * ppm);
  Texture texture;
  texture.units = {kCardWidthMm, kCardHeightMm};
  cv::Mat bgra(rows, cols, CV_8UC4, cv::Scalar(kStock.b, kStock.g, kStock.r, 255));
  {
    Surface surface(cairo_image_surface_create_for_data(bgra.data, CAIRO_FORMAT_ARGB32, cols, rows,
                                                        static_cast<int>(bgra.step)));
    Cairo cr(cairo_create(surface.get()));
    if (cairo_status(cr.get()) == CAIRO_STATUS_SUCCESS) {
      cairo_scale(cr.get(), ppm, ppm);
      drawGuilloche(cr.get());
      setColor(cr.get(), kBand);
      cairo_rectangle(cr.get(), kBandMm.x, kBandMm.y, kBandMm.width, kBandMm.height);
      cairo_fill(cr.get());
      drawText(cr.get(), "IDENTITY CARD", 4.0, 2.3, 3.0, true, kNavy);
      drawText(cr.get(), "REPUBLIC OF KWQ", 82.0, 3.0, 1.8, true, kNavy, true);
      drawPortrait(cr.get());
      drawFields(cr.get());
      if (auto code = encodePdf417(codeText)) drawCode(cr.get(), *code);
      cairo_surface_flush(surface.get());
    }
  }
  // Cairo draws premultiplied BGRA; every drawing is opaque over an opaque card, so the
  // texture stays plain opaque BGRA.
  texture.levels.push_back(bgra);
  addCoarserLevels(texture, 64);
  return texture;
}

}  // namespace kwq::synthetic

namespace kwq::synthetic {

PrintedLayout documentLayout(SyntheticPropKind kind, const std::string& mrzText) {
  PrintedLayout layout;
  layout.units = documentSize(kind);
  layout.mrz = mrzBlock(kind, mrzLines(mrzText));
  return layout;
}

std::string defaultMRZText(SyntheticPropKind kind) {
  return std::string(kind == SyntheticPropKind::Passport ? kSyntheticPassportMRZ
                                                         : kSyntheticIdCardMRZ);
}

Texture makeDocumentTexture(SyntheticPropKind kind, const std::string& mrzText,
                            double pixelsPerMm) {
  const double ppm =
      std::round(std::clamp(std::isfinite(pixelsPerMm) ? pixelsPerMm : 4.0, 4.0, 24.0));
  const cv::Size2d size = documentSize(kind);
  const int cols = static_cast<int>(size.width * ppm);
  const int rows = static_cast<int>(size.height * ppm);
  Texture texture;
  texture.units = size;
  cv::Mat bgra(rows, cols, CV_8UC4, cv::Scalar(kStock.b, kStock.g, kStock.r, 255));
  {
    Surface surface(cairo_image_surface_create_for_data(bgra.data, CAIRO_FORMAT_ARGB32, cols, rows,
                                                        static_cast<int>(bgra.step)));
    Cairo cr(cairo_create(surface.get()));
    if (cairo_status(cr.get()) == CAIRO_STATUS_SUCCESS) {
      cairo_scale(cr.get(), ppm, ppm);
      const std::vector<std::string> lines = mrzLines(mrzText);
      if (kind == SyntheticPropKind::Passport)
        drawPassportPage(cr.get(), lines);
      else
        drawCardBack(cr.get(), lines);
      cairo_surface_flush(surface.get());
    }
  }
  texture.levels.push_back(bgra);
  addCoarserLevels(texture, 64);
  return texture;
}

}  // namespace kwq::synthetic
