#include "kwqimage/AAMVA.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kwq {
namespace {

struct Sub {
  std::string type;
  std::string body;  // elements, each ending in LF; the last one's LF becomes the CR
};

// A record laid out as the standard describes: header, directory with offsets and lengths
// counted from the "@", then the subfiles, each its designator and elements ended by CR.
std::string record(int version, const std::vector<Sub>& subs, const std::string& iin = "636026",
                   int jurisdictionVersion = 0) {
  char head[32];
  std::snprintf(head, sizeof head, "@\n\x1e\rANSI %s%02d", iin.c_str(), version);
  std::string out = head;
  if (version >= 2) {
    std::snprintf(head, sizeof head, "%02d", jurisdictionVersion);
    out += head;
  }
  std::snprintf(head, sizeof head, "%02zu", subs.size());
  out += head;
  size_t offset = out.size() + 10 * subs.size();
  std::string data;
  for (const Sub& s : subs) {
    std::string body = s.type + s.body;
    if (!body.empty() && body.back() == '\n') body.back() = '\r';
    std::snprintf(head, sizeof head, "%s%04zu%04zu", s.type.c_str(), offset, body.size());
    out += head;
    data += body;
    offset += body.size();
  }
  return out + data;
}

const std::string kDlElements =
    "DCAD\nDCBNONE\nDCDNONE\nDBA08312029\nDCSSAMPLE\nDACJORDAN\nDADLEE\nDBD09012021\n"
    "DBB04151990\nDBC2\nDAYBRO\nDAU065 IN\nDAG123 EXAMPLE STREET\nDAIANYTOWN\nDAJAZ\n"
    "DAK850010000  \nDAQD12345678\nDCFDOC4455667788\nDCGUSA\nDDEN\nDDFN\nDDGN\n";

TEST(AAMVAParser, ReadsAStandardVersionTenLicence) {
  const std::string text =
      record(10, {{"DL", kDlElements}, {"ZA", "ZAAVALUE ONE\nZABX\n"}}, "636026", 1);
  const AAMVAParseResult r = parseAAMVA(text);
  ASSERT_TRUE(r.ok()) << r.message;
  const AAMVARecord& a = *r.record;
  EXPECT_TRUE(a.warnings.empty()) << a.warnings.front();
  EXPECT_EQ(a.issuerIdentificationNumber, "636026");
  EXPECT_EQ(a.aamvaVersion, 10);
  EXPECT_EQ(a.jurisdictionVersion, 1);
  EXPECT_EQ(a.numberOfEntries, 2);
  ASSERT_EQ(a.subfiles.size(), 2u);
  EXPECT_EQ(a.subfiles[0].type, "DL");
  EXPECT_EQ(a.subfiles[0].offset, 41u);
  EXPECT_EQ(a.subfiles[0].foundAt, 43u);
  EXPECT_EQ(a.subfiles[1].type, "ZA");
  EXPECT_EQ(a.documentType, "DL");
  EXPECT_EQ(a.familyName, "SAMPLE");
  EXPECT_EQ(a.givenName, "JORDAN");
  EXPECT_EQ(a.middleName, "LEE");
  EXPECT_EQ(a.customerId, "D12345678");
  EXPECT_EQ(a.documentDiscriminator, "DOC4455667788");
  EXPECT_EQ(a.street, "123 EXAMPLE STREET");
  EXPECT_EQ(a.city, "ANYTOWN");
  EXPECT_EQ(a.jurisdiction, "AZ");
  EXPECT_EQ(a.postalCode, "850010000");  // trailing pad spaces gone
  EXPECT_EQ(a.country, "USA");
  EXPECT_EQ(a.vehicleClass, "D");
  EXPECT_EQ(a.height, "065 IN");
  EXPECT_EQ(a.eyeColor, "BRO");
  EXPECT_EQ(a.sex, AAMVASex::Female);
  EXPECT_EQ(a.dateOfBirth, (AAMVADate{1990, 4, 15}));
  EXPECT_EQ(a.expirationDate, (AAMVADate{2029, 8, 31}));
  EXPECT_EQ(a.issueDate, (AAMVADate{2021, 9, 1}));
  EXPECT_EQ(formatAAMVADate(*a.dateOfBirth), "1990-04-15");
  // The jurisdiction's subfile is read too, and does not leak into the DL subfile's end.
  EXPECT_EQ(a.elements.at("ZAA"), "VALUE ONE");
  EXPECT_EQ(a.elements.at("ZAB"), "X");
  EXPECT_EQ(a.elements.at("DDG"), "N");
}

TEST(AAMVAParser, DatesFollowVersionAndCountry) {
  // Version 1: no jurisdiction version in the header, full name in DAA, CCYYMMDD dates.
  const std::string v1 =
      record(1, {{"DL", "DAQ0123456\nDAAPUBLIC,JOHN,QUINCY\nDBB19800229\nDBA20300101\nDBC1\n"}});
  AAMVAParseResult r = parseAAMVA(v1);
  ASSERT_TRUE(r.ok()) << r.message;
  EXPECT_EQ(r.record->jurisdictionVersion, 0);
  EXPECT_EQ(r.record->familyName, "PUBLIC");
  EXPECT_EQ(r.record->givenName, "JOHN");
  EXPECT_EQ(r.record->middleName, "QUINCY");
  EXPECT_EQ(r.record->sex, AAMVASex::Male);
  EXPECT_EQ(r.record->dateOfBirth, (AAMVADate{1980, 2, 29}));
  EXPECT_TRUE(r.record->warnings.empty());

  // Canada writes CCYYMMDD in every version; an ID card subfile carries the fields.
  const std::string ca = record(
      9, {{"ID", "DCSTREMBLAY\nDACMARIE\nDBB19751231\nDBA20280615\nDCGCAN\nDAQ T1234-56789\n"}},
      "636012", 0);
  r = parseAAMVA(ca);
  ASSERT_TRUE(r.ok()) << r.message;
  EXPECT_EQ(r.record->documentType, "ID");
  EXPECT_EQ(r.record->dateOfBirth, (AAMVADate{1975, 12, 31}));
  EXPECT_EQ(r.record->expirationDate, (AAMVADate{2028, 6, 15}));
  EXPECT_EQ(r.record->customerId, "T1234-56789");
  EXPECT_TRUE(r.record->warnings.empty());

  // Version 2 given names together in DCT.
  r = parseAAMVA(record(2, {{"DL", "DCSROE\nDCTRICHARD,ALAN\nDBB07041976\n"}}));
  ASSERT_TRUE(r.ok()) << r.message;
  EXPECT_EQ(r.record->givenName, "RICHARD");
  EXPECT_EQ(r.record->middleName, "ALAN");
  EXPECT_EQ(r.record->dateOfBirth, (AAMVADate{1976, 7, 4}));

  // A US version-8 card that wrote its birth date year first: read, with a warning; an
  // impossible date is left out, with a warning; both orders valid stays with the standard's.
  r = parseAAMVA(record(8, {{"DL", "DCSROE\nDBB19760704\nDBA02302030\nDBD01022003\nDCGUSA\n"}}));
  ASSERT_TRUE(r.ok()) << r.message;
  EXPECT_EQ(r.record->dateOfBirth, (AAMVADate{1976, 7, 4}));
  EXPECT_FALSE(r.record->expirationDate.has_value());
  EXPECT_EQ(r.record->issueDate, (AAMVADate{2003, 1, 2}));
  EXPECT_EQ(r.record->warnings.size(), 2u);
}

TEST(AAMVAParser, ToleratesTheCommonDeviations) {
  const std::string good = record(8, {{"DL", kDlElements}}, "636026", 2);
  auto expectFields = [](const std::string& text, const char* what, bool warned = true) {
    const AAMVAParseResult r = parseAAMVA(text);
    ASSERT_TRUE(r.ok()) << what << ": " << r.message;
    EXPECT_EQ(r.record->familyName, "SAMPLE") << what;
    EXPECT_EQ(r.record->customerId, "D12345678") << what;
    EXPECT_EQ(r.record->dateOfBirth, (AAMVADate{1990, 4, 15})) << what;
    EXPECT_EQ(r.record->elements.count("DDG"), 1u) << what;
    EXPECT_EQ(!r.record->warnings.empty(), warned) << what;
  };
  expectFields(good, "standard", false);

  // CR LF between elements (and so every offset after the first element shifted).
  std::string crlf;
  for (char c : good)
    crlf += c == '\n' && crlf.size() > 3 ? std::string("\r\n") : std::string(1, c);
  expectFields(crlf, "CR LF");
  // CR alone between elements.
  std::string cr = good;
  for (size_t i = 4; i < cr.size(); ++i)
    if (cr[i] == '\n') cr[i] = '\r';
  expectFields(cr, "CR");
  // Directory offset three bytes short, and three bytes long.
  std::string off = good;
  off.replace(23, 4, "0028");
  expectFields(off, "offset short");
  off.replace(23, 4, "0034");
  expectFields(off, "offset long");
  // An offset nowhere near (the designator is found by search).
  off.replace(23, 4, "0400");
  expectFields(off, "offset wild");
  // No designator before the elements.
  std::string bare = good;
  bare.erase(31, 2);
  expectFields(bare, "missing designator");
  // Header variants: "ANSI" without its space, LF CR LF for the separators, "AAMVA" type.
  std::string nospace = good;
  nospace.erase(8, 1);
  expectFields(nospace, "no space");
  std::string seps = good;
  seps.replace(1, 3, "\r\n");
  expectFields(seps, "separators");
  std::string old = good;
  old.replace(4, 5, "AAMVA");
  expectFields(old, "AAMVA type");
}

TEST(AAMVAParser, MalformedTextGivesAClearError) {
  struct Case {
    std::string text;
    AAMVAError error;
  };
  const std::vector<Case> cases = {
      {"", AAMVAError::Empty},
      {"KWQIMAGE SYNTHETIC CARD 0001", AAMVAError::NoHeader},
      {"@\n\x1e\rXYZW 636026080001DL00410010", AAMVAError::NoHeader},
      {"@\n\x1e\rANSI 63A026080001DL00410010", AAMVAError::BadHeader},
      {"@\n\x1e\rANSI 6360260", AAMVAError::BadHeader},
      {"@\n\x1e\rANSI 636026080000", AAMVAError::BadHeader},
      {"@\n\x1e\rANSI 636026080001DL00310010DL\r", AAMVAError::NoDataElements},
      {"@\n\x1e\rANSI 636026080001ZA00310010ZAZAAX\r", AAMVAError::NoDataElements},
  };
  for (const Case& c : cases) {
    const AAMVAParseResult r = parseAAMVA(c.text);
    EXPECT_FALSE(r.ok()) << c.text;
    EXPECT_EQ(r.error, c.error) << c.text;
    EXPECT_FALSE(r.message.empty()) << c.text;
  }
  // Every prefix of a good record and random damage to it: an error or a record, never a
  // crash (the sanitizer build and the fuzzer check the reads).
  const std::string good = record(10, {{"DL", kDlElements}, {"ZA", "ZAAX\n"}}, "636026", 1);
  for (size_t n = 0; n <= good.size(); ++n) {
    const AAMVAParseResult r = parseAAMVA(good.substr(0, n));
    EXPECT_EQ(r.ok(), r.error == AAMVAError::None) << n;
  }
  EXPECT_FALSE(parseAAMVA(good.substr(0, 40)).ok());
  std::mt19937 rng(7);
  for (int i = 0; i < 2000; ++i) {
    std::string bad = good;
    for (int k = 0; k < 4; ++k) bad[rng() % bad.size()] = static_cast<char>(rng());
    const AAMVAParseResult r = parseAAMVA(bad);
    EXPECT_EQ(r.ok(), r.message.empty());
  }
}

}  // namespace
}  // namespace kwq
