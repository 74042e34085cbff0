#include "platform/vision/code_reader.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "platform/vision/metadata_recognizer.h"
#include "support/test_support.h"
#include "synthetic/renderer.h"
#include "tests/support/code_scenes.h"

// Fontconfig keeps what it parses for the synthetic card's text for the life of the process.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libexpat.so\n";
}

namespace kwq::platform {
namespace {

using test::CodeKind;
using test::CodePose;

const std::string kPdf417(AVMetadataObjectTypePDF417Code);
const std::string kQR(AVMetadataObjectTypeQRCode);
const std::vector<std::string> kBoth{kPdf417, kQR};

const MetadataMachineReadableCodeObject& code(const MetadataObjects& objects, size_t i) {
  return dynamic_cast<const MetadataMachineReadableCodeObject&>(*objects.at(i));
}

// Worst distance, in pixels, between the reported corners (bottom left, bottom right, top
// right, top left) and the printed ones (top left, top right, bottom right, bottom left),
// label for label.
template <typename P>
double cornerError(const MetadataMachineReadableCodeObject& c, const cv::Mat& frame,
                   const std::array<P, 4>& printed) {
  if (c.corners.size() != 4) return 1e9;
  double worst = 0;
  for (size_t i = 0; i < 4; ++i)
    worst = std::max(worst, std::hypot(c.corners[i].x * frame.cols - printed[3 - i].x,
                                       c.corners[i].y * frame.rows - printed[3 - i].y));
  return worst;
}

SampleBuffer sample(const cv::Mat& bgra, uint32_t format = kPixelFormat420f, size_t align = 64) {
  return SampleBuffer(test::frameFromBgra(bgra, format, align), {1001, 30000}, {1000, 30000});
}

cv::Mat photo(const char* name) {
  const cv::Mat p = test::loadPhoto(KWQ_SAMPLE_DATA_DIR, name, 1280, 720);
  EXPECT_FALSE(p.empty()) << name << " (Debian package opencv-doc)";
  return p.empty() ? cv::Mat(720, 1280, CV_8UC4, cv::Scalar(120, 140, 160, 255)) : p;
}

CodePose pose(double x, double y, double module, double rotation, double keystone = 0) {
  CodePose p;
  p.centre = {x, y};
  p.modulePixels = module;
  p.rotationDeg = rotation;
  p.keystone = keystone;
  return p;
}

// A licence card turned and tilted in the hand, softened and noisy as a camera sees it.
CodePose onCard(double x, double y, double module, double rotation, double tilt = 0,
                double tiltAxis = 0, double glare = 0) {
  CodePose p = pose(x, y, module, rotation);
  p.card = true;
  p.tiltDeg = tilt;
  p.tiltAxisDeg = tiltAxis;
  p.glare = glare;
  p.blurSigma = 0.7;
  p.noiseSigma = 3;
  return p;
}

TEST(CodeReader, ReadsPrintedSymbolsAtAnyTurnWithCornersWherePrinted) {
  struct Case {
    CodeKind kind;
    const char* photo;
    CodePose pose;
  };
  // QR at any turn; PDF417 level, upside down, and as a licence record on a card turned all
  // the way round, tilted out of the plane up to 25 degrees, some with glare (zxing alone
  // reads those within about 5 degrees of level or of a quarter turn).
  std::vector<Case> cases = {
      {CodeKind::PDF417, "building.jpg", pose(640, 360, 3, 0)},
      {CodeKind::PDF417, "messi5.jpg", pose(500, 300, 2.5, 4, 0.08)},
      {CodeKind::PDF417, "fruits.jpg", pose(700, 420, 3, 180)},
      {CodeKind::QR, "building.jpg", pose(300, 250, 4, 30, 0.1)},
      {CodeKind::QR, "baboon.jpg", pose(900, 400, 5, -45)},
      {CodeKind::QR, "home.jpg", pose(640, 360, 4, 90, 0.15)},
      {CodeKind::QR, "stuff.jpg", pose(800, 300, 3, 180)},
  };
  const char* photos[] = {"building.jpg", "messi5.jpg", "fruits.jpg", "stuff.jpg"};
  for (int n = 0; n < 24; ++n)
    cases.push_back({CodeKind::PDF417, photos[n % 4],
                     onCard(640 + 20 * (n % 5), 360, n % 2 ? 2.0 : 2.5, 15 * n, 5 * (n % 6), 37 * n,
                            n % 3 ? 0 : 80)});
  int n = 0;
  for (const Case& c : cases) {
    const std::string text = c.pose.card
                                 ? test::aamvaRecord(static_cast<uint64_t>(n++))
                                 : "DOE<<JANE 1988-03-12 K47Q0193552 case " + std::to_string(n++);
    const auto printed = test::printSymbol(photo(c.photo), test::writeSymbol(c.kind, text), c.pose);
    const MetadataObjects objects = readCodes(sample(printed.bgra), kBoth);
    const std::string what = text.substr(0, 12) + " at " + std::to_string(c.pose.rotationDeg);
    ASSERT_EQ(objects.size(), 1u) << what;
    const auto& found = code(objects, 0);
    EXPECT_EQ(found.type, c.kind == CodeKind::QR ? kQR : kPdf417) << what;
    EXPECT_EQ(found.stringValue, text) << what;
    // Each corner within two modules of its own, named as printed whatever the turn.
    EXPECT_LE(cornerError(found, printed.bgra, printed.corners), 2 * c.pose.modulePixels) << what;
    double minX = 1, minY = 1, maxX = 0, maxY = 0;
    for (const Point& p : found.corners) {
      minX = std::min(minX, p.x), maxX = std::max(maxX, p.x);
      minY = std::min(minY, p.y), maxY = std::max(maxY, p.y);
    }
    EXPECT_DOUBLE_EQ(found.bounds.origin.x, minX);
    EXPECT_DOUBLE_EQ(found.bounds.origin.y, minY);
    EXPECT_DOUBLE_EQ(found.bounds.size.width, maxX - minX);
    EXPECT_DOUBLE_EQ(found.bounds.size.height, maxY - minY);
    EXPECT_EQ(found.time, (MediaTime{1001, 30000}));
    EXPECT_EQ(found.duration, (MediaTime{1000, 30000}));
    if (c.pose.rotationDeg == 0) {
      // The metadata callback's rectangle: from P3 across to P2 and down to P0.
      EXPECT_GT(found.corners[2].x - found.corners[3].x, 0.1) << what;
      EXPECT_GT(found.corners[0].y - found.corners[3].y, 0.02) << what;
    }
  }
}

TEST(CodeReader, OnlyRequestedTypesAreReturned) {
  cv::Mat scene = photo("building.jpg");
  scene = test::printSymbol(scene, test::writeSymbol(CodeKind::PDF417, "PDF417 BESIDE A QR"),
                            pose(400, 360, 3, 0))
              .bgra;
  scene = test::printSymbol(scene, test::writeSymbol(CodeKind::QR, "QR BESIDE A PDF417"),
                            pose(1000, 360, 4, 10))
              .bgra;
  const SampleBuffer frame = sample(scene);
  auto types = [&](const std::vector<std::string>& requested) {
    std::vector<std::string> out;
    for (const auto& o : readCodes(frame, requested)) out.push_back(o->type);
    std::sort(out.begin(), out.end());
    return out;
  };
  EXPECT_EQ(types({kPdf417}), std::vector<std::string>{kPdf417});
  EXPECT_EQ(types({kQR}), std::vector<std::string>{kQR});
  EXPECT_EQ(types({"face", kQR, "org.gs1.EAN-13", kQR}), std::vector<std::string>{kQR});
  EXPECT_EQ(types(kBoth), (std::vector<std::string>{kPdf417, kQR}));
  EXPECT_TRUE(types({}).empty());
  EXPECT_TRUE(types({std::string(AVMetadataObjectTypeFace)}).empty());
  EXPECT_TRUE(types({"org.iso.pdf417", ""}).empty());  // type names are exact
}

TEST(CodeReader, TextForTextContentControlCharactersIncluded) {
  const cv::Mat background = photo("building.jpg");
  struct Case {
    CodeKind kind;
    std::string content;
    bool binary;
  };
  std::string bytes;
  for (int i = 0; i < 64; ++i) bytes.push_back(static_cast<char>((i * 37 + 128) & 0xFF));
  const Case cases[] = {
      {CodeKind::QR, "Zoë Ångström, 東京 🚗", false},  // UTF-8 round trip
      {CodeKind::QR, bytes, true},
      {CodeKind::PDF417, bytes, true},
      // A driving licence's record: 7-bit text with LF, RS and CR between its fields, which
      // zxing calls binary.
      {CodeKind::PDF417,
       "@\n\x1e\rANSI 636000100002DL00410278ZV03190008DLDAQT64235789\nDCSSAMPLE\r", false},
      {CodeKind::QR,
       "[)>\x1e"
       "06\x1dP12345\x1e\x04",
       false},  // ISO 15434 with GS, RS, EOT
  };
  for (const Case& c : cases) {
    const auto printed = test::printSymbol(
        background, test::writeSymbol(c.kind, c.content, c.binary), pose(640, 360, 3, 0));
    const MetadataObjects objects = readCodes(sample(printed.bgra), kBoth);
    ASSERT_EQ(objects.size(), 1u);
    if (c.binary)
      EXPECT_EQ(code(objects, 0).stringValue, std::nullopt);
    else
      EXPECT_EQ(code(objects, 0).stringValue, c.content);
    EXPECT_EQ(code(objects, 0).corners.size(), 4u);
  }
}

TEST(CodeReader, SameCodesFromEveryPixelFormatAndImageLayout) {
  const std::string text = "SAME IN EVERY FORMAT 0123456789";
  const auto printed = test::printSymbol(photo("messi5.jpg"), test::writeSymbol(CodeKind::QR, text),
                                         pose(640, 360, 4, 20, 0.1));
  const cv::Mat& bgra = printed.bgra;
  const MetadataObjects reference = readCodes(sample(bgra), kBoth);
  ASSERT_EQ(reference.size(), 1u);
  const auto& ref = code(reference, 0);
  EXPECT_EQ(ref.stringValue, text);

  auto expectSame = [&](const MetadataObjects& objects, const char* what) {
    ASSERT_EQ(objects.size(), 1u) << what;
    const auto& c = code(objects, 0);
    EXPECT_EQ(c.type, ref.type) << what;
    EXPECT_EQ(c.stringValue, ref.stringValue) << what;
    ASSERT_EQ(c.corners.size(), 4u) << what;
    for (size_t i = 0; i < 4; ++i) {  // luma from other weights may move an edge by a pixel
      EXPECT_NEAR(c.corners[i].x * 1280, ref.corners[i].x * 1280, 2.0) << what;
      EXPECT_NEAR(c.corners[i].y * 720, ref.corners[i].y * 720, 2.0) << what;
    }
  };
  expectSame(readCodes(sample(bgra, kPixelFormat420v, 16), kBoth), "420v");
  expectSame(readCodes(sample(bgra, kPixelFormatBGRA, 256), kBoth), "BGRA");
  const Image image = Image::copyFromBytes(PixelLayout::BGRA32Premultiplied, bgra.cols, bgra.rows,
                                           bgra.step[0], bgra.data);
  for (PixelLayout layout : {PixelLayout::BGRA32Premultiplied, PixelLayout::RGBA32,
                             PixelLayout::RGB24, PixelLayout::Gray8}) {
    const MetadataObjects objects = readCodes(image.converted(layout), kBoth);
    expectSame(objects, "image");
    if (!objects.empty()) EXPECT_FALSE(objects[0]->time.isValid());
  }
}

TEST(CodeReader, ReadsTheSyntheticCardWhereItsCodeIsWhole) {
  // A short text, whose modules stay near three pixels: the default licence record's are too
  // fine to read on every frame (its rate is measured with the card capture).
  synthetic::SceneRenderer scene(SyntheticScene::card("KWQIMAGE SYNTHETIC CARD 0001"), 1280, 720);
  int eligible = 0, read = 0;
  for (uint64_t i = 0; i < 1800; i += 45) {
    cv::Mat bgra(720, 1280, CV_8UC4);
    const SyntheticFrameTruth truth = scene.render(i, {}, bgra.data, bgra.step[0]);
    const SyntheticPropTruth* card = truth.card();
    if (!card || card->codes.empty()) continue;
    const SyntheticCodeTruth& printed = card->codes[0];
    bool whole = card->fullyVisible;
    for (const Point& p : printed.corners)
      whole = whole && p.x >= 0 && p.y >= 0 && p.x <= 1280 && p.y <= 720;
    if (!whole) continue;
    ++eligible;
    const MetadataObjects objects = readCodes(sample(bgra), {kPdf417});
    if (objects.size() != 1 || code(objects, 0).stringValue != printed.text) continue;
    ++read;
    // Every corner near its own: a fifth of the symbol's width (about 25 modules) catches
    // corners named round the wrong way, not the few modules zxing's corners may be off.
    const double width = std::hypot(printed.corners[1].x - printed.corners[0].x,
                                    printed.corners[1].y - printed.corners[0].y);
    EXPECT_LE(cornerError(code(objects, 0), bgra, printed.corners), 0.2 * width) << "frame " << i;
  }
  EXPECT_GE(eligible, 30);
  EXPECT_GE(read * 100, eligible * 97) << read << " of " << eligible;
}

TEST(CodeReader, AwkwardScenesGiveTheRightTextsOrNone) {
  using Texts = std::vector<std::string>;
  auto texts = [](const MetadataObjects& objects) {
    Texts out;
    for (size_t i = 0; i < objects.size(); ++i)
      out.push_back(code(objects, i).stringValue.value_or("(binary)"));
    std::sort(out.begin(), out.end());
    return out;
  };
  auto print = [](cv::Mat scene, CodeKind kind, const std::string& text, const CodePose& p) {
    return test::printSymbol(scene, test::writeSymbol(kind, text), p).bgra;
  };
  const cv::Mat background = photo("home.jpg");
  // Two PDF417 symbols turned differently; a QR beside a turned PDF417.
  cv::Mat two = print(background, CodeKind::PDF417, "FIRST OF TWO 0001", pose(330, 360, 3, 30));
  two = print(two, CodeKind::PDF417, "SECOND OF TWO 0002", pose(950, 360, 3, -60));
  EXPECT_EQ(texts(readCodes(sample(two), kBoth)),
            (Texts{"FIRST OF TWO 0001", "SECOND OF TWO 0002"}));
  cv::Mat mixed = print(background, CodeKind::QR, "QR NEXT TO PDF417", pose(300, 360, 4, 10));
  mixed = print(mixed, CodeKind::PDF417, "PDF417 NEXT TO QR", pose(850, 360, 3, 140));
  EXPECT_EQ(texts(readCodes(sample(mixed), kBoth)),
            (Texts{"PDF417 NEXT TO QR", "QR NEXT TO PDF417"}));

  // Symbols cut by the frame's edge, and symbols with a stain over part of them: their own
  // text or nothing, never another.
  const std::string record = test::aamvaRecord(99);
  for (int angle : {0, 25, 70, 160}) {
    const cv::Mat cut = print(background, CodeKind::PDF417, record, pose(1180, 200, 3, angle));
    for (const std::string& t : texts(readCodes(sample(cut), kBoth))) EXPECT_EQ(t, record);
    cv::Mat stained = print(background, CodeKind::PDF417, record, pose(640, 360, 3, angle));
    cv::circle(stained, {640 + angle, 360}, 40 + angle / 2, cv::Scalar(90, 90, 90, 255),
               cv::FILLED);
    for (const std::string& t : texts(readCodes(sample(stained), kBoth))) EXPECT_EQ(t, record);
  }

  // The damaged symbols of the fuzz corpus (header: format, width, height; then luma bytes
  // repeated), enlarged and turned in a frame: read without a fault, and no text.
  for (const char* name : {"pdf417-decoder-fault-3", "pdf417-negative-codeword-count-1",
                           "pdf417-negative-codeword-count-2"}) {
    std::ifstream file(std::string(KWQ_CODE_CORPUS_DIR) + "/" + name, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)),
                                     std::istreambuf_iterator<char>());
    ASSERT_GT(bytes.size(), 8u) << name;
    const int w = (bytes[1] | bytes[2] << 8) % 300, h = (bytes[3] | bytes[4] << 8) % 300;
    const size_t rowBytes = static_cast<size_t>(w) + bytes[5] % 9;
    cv::Mat luma(h, w, CV_8UC1);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        luma.at<uint8_t>(y, x) = bytes[8 + (y * rowBytes + x) % (bytes.size() - 8)];
    for (double angle : {0.0, 20.0, 90.0, 225.0}) {
      cv::Mat frame(480, 640, CV_8UC1, cv::Scalar(200));
      const cv::Mat turn = cv::getRotationMatrix2D({w / 2.0f, h / 2.0f}, angle, 2.0);
      cv::Mat placed = turn.clone();
      placed.at<double>(0, 2) += 320 - w / 2.0;
      placed.at<double>(1, 2) += 240 - h / 2.0;
      cv::warpAffine(luma, frame, placed, frame.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
      cv::Mat bgra;
      cv::cvtColor(frame, bgra, cv::COLOR_GRAY2BGRA);
      for (const std::string& t : texts(readCodes(sample(bgra), kBoth)))
        ADD_FAILURE() << name << " at " << angle << " degrees read as " << t;
    }
  }
}

TEST(CodeReader, LivePdf417TextIsReportedFromItsSecondRead) {
  // Two printed codes, each read on every frame it is shown; frames carry camera time stamps.
  const cv::Mat background = photo("building.jpg");
  auto frameWith = [&](const std::string& text) {
    return test::printSymbol(background, test::writeSymbol(CodeKind::PDF417, text),
                             pose(640, 360, 3, 0))
        .bgra;
  };
  const cv::Mat first = frameWith("FIRST CODE 0001"), second = frameWith("SECOND CODE 0002");
  const cv::Mat qr = test::printSymbol(background, test::writeSymbol(CodeKind::QR, "QR TEXT"),
                                       pose(640, 360, 6, 0))
                         .bgra;
  auto at = [](const cv::Mat& bgra, double seconds) {
    return SampleBuffer(test::frameFromBgra(bgra, kPixelFormat420f, 64),
                        {static_cast<int64_t>(seconds * 30000), 30000}, {1000, 30000});
  };
  auto texts = [](const MetadataObjects& objects) {
    std::vector<std::string> out;
    for (const auto& o : objects)
      out.push_back(dynamic_cast<const MetadataMachineReadableCodeObject&>(*o).stringValue.value_or(
          "(none)"));
    return out;
  };
  using Texts = std::vector<std::string>;
  const auto recognize = makeMetadataRecognizer();
  EXPECT_EQ(texts(recognize(at(first, 0.0), kBoth)), Texts{});  // first read: held back
  EXPECT_EQ(texts(recognize(at(first, 0.1), kBoth)), Texts{"FIRST CODE 0001"});
  EXPECT_EQ(texts(recognize(at(first, 0.2), kBoth)), Texts{"FIRST CODE 0001"});
  EXPECT_EQ(texts(recognize(at(second, 0.3), kBoth)), Texts{});  // a new text starts over
  EXPECT_EQ(texts(recognize(at(second, 0.4), kBoth)), Texts{"SECOND CODE 0002"});
  // Reads further apart than two seconds do not confirm each other.
  EXPECT_EQ(texts(recognize(at(first, 5.0), kBoth)), Texts{});
  EXPECT_EQ(texts(recognize(at(first, 7.5), kBoth)), Texts{});
  EXPECT_EQ(texts(recognize(at(first, 7.6), kBoth)), Texts{"FIRST CODE 0001"});
  // QR codes, whose error correction does not let wrong texts through, come at once.
  EXPECT_EQ(texts(recognize(at(qr, 8.0), kBoth)), Texts{"QR TEXT"});
}

TEST(CodeReader, BadFramesGiveNothing) {
  EXPECT_TRUE(readCodes(SampleBuffer(), kBoth).empty());
  EXPECT_TRUE(readCodes(Image(), kBoth).empty());
  EXPECT_TRUE(readCodes(Image::withoutBitmap({640, 480}), kBoth).empty());

  std::mt19937 rng(3);
  auto noise = [&](size_t w, size_t h) {
    cv::Mat m(static_cast<int>(h), static_cast<int>(w), CV_8UC4);
    cv::randu(m, 0, 256);
    return m;
  };
  // Odd and tiny sizes in every format, and a frame that is one long row or column.
  for (auto [w, h] : {std::pair<size_t, size_t>{1, 1},
                      {3, 2},
                      {15, 15},
                      {16, 16},
                      {17, 9},
                      {33, 17},
                      {1280, 3},
                      {3, 720},
                      {641, 481}}) {
    for (uint32_t format : {kPixelFormat420f, kPixelFormat420v, kPixelFormatBGRA}) {
      for (size_t align : {1, 64}) {
        const cv::Mat m = noise(w, h);
        EXPECT_TRUE(readCodes(sample(m, format, align), kBoth).empty()) << w << "x" << h;
      }
    }
    const cv::Mat m = noise(w, h);
    EXPECT_TRUE(
        readCodes(Image::copyFromBytes(PixelLayout::BGRA32Premultiplied, w, h, m.step[0], m.data),
                  kBoth)
            .empty());
  }

  // Formats the reader does not take, over a plane that would make a fine luma plane.
  const cv::Mat qr = test::writeSymbol(CodeKind::QR, "X");
  cv::Mat gray;
  cv::copyMakeBorder(qr, gray, 8, 8, 8, 8, cv::BORDER_CONSTANT, 255);
  for (uint32_t format : {fourCharCode("L008"), fourCharCode("2vuy"), 0u}) {
    const PixelBuffer b = PixelBuffer::wrap(
        format, gray.cols, gray.rows,
        {{gray.data, gray.step[0], static_cast<size_t>(gray.cols), static_cast<size_t>(gray.rows)}},
        nullptr);
    ASSERT_FALSE(b.isNull());
    EXPECT_TRUE(readCodes(SampleBuffer(b), kBoth).empty()) << format;
  }
  EXPECT_EQ(readCodes(Image::copyFromBytes(PixelLayout::Gray8, gray.cols, gray.rows, gray.step[0],
                                           gray.data),
                      kBoth)
                .size(),
            1u);  // the same plane as a gray image is read
}

TEST(CodeReader, ConcurrentCallsAgree) {
  const std::string text = "READ FROM FOUR THREADS";
  const auto printed = test::printSymbol(
      photo("fruits.jpg"), test::writeSymbol(CodeKind::PDF417, text), pose(640, 360, 3, 2));
  const SampleBuffer frame = sample(printed.bgra);
  std::array<int, 4> reads{};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < reads.size(); ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5; ++i) {
        const MetadataObjects objects = readCodes(frame, kBoth);
        reads[t] += objects.size() == 1 && code(objects, 0).stringValue == text;
      }
    });
  for (auto& th : threads) th.join();
  for (int r : reads) EXPECT_EQ(r, 5);
  EXPECT_FALSE(frame.imageBuffer().isLocked());
}

}  // namespace
}  // namespace kwq::platform
