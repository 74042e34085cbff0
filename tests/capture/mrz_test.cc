#include "kwqimage/MRZ.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kwq {
namespace {

const MRZDate kToday{2026, 11, 25};

// The worked examples of ICAO 9303 for the specimen state Utopia, one per layout.
struct Specimen {
  MRZFormat format;
  std::string text;
  std::string documentCode, number, nationality, birth, expiry, optional;
  char sex;
  size_t checks;
};
const std::vector<Specimen> kSpecimens = {
    {MRZFormat::TD3,
     "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<\n"
     "L898902C36UTO7408122F1204159ZE184226B<<<<<10",
     "P", "L898902C3", "UTO", "1974-08-12", "2012-04-15", "ZE184226B", 'F', 5},
    {MRZFormat::TD1,
     "I<UTOD231458907<<<<<<<<<<<<<<<\n"
     "7408122F1204159UTO<<<<<<<<<<<6\n"
     "ERIKSSON<<ANNA<MARIA<<<<<<<<<<",
     "I", "D23145890", "UTO", "1974-08-12", "2012-04-15", "", 'F', 4},
    {MRZFormat::TD2,
     "I<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<\n"
     "D231458907UTO7408122F1204159<<<<<<<6",
     "I", "D23145890", "UTO", "1974-08-12", "2012-04-15", "", 'F', 4},
    {MRZFormat::MRVA,
     "V<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<\n"
     "L8988901C4XXX4009078F96121096ZE184226B<<<<<<",
     "V", "L8988901C", "XXX", "1940-09-07", "1996-12-10", "6ZE184226B", 'F', 3},
    {MRZFormat::MRVB,
     "V<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<\n"
     "L8988901C4XXX4009078F9612109<<<<<<<<",
     "V", "L8988901C", "XXX", "1940-09-07", "1996-12-10", "", 'F', 3},
};

std::string join(const std::vector<std::string>& lines) {
  std::string s;
  for (const std::string& l : lines) s += l + "\n";
  return s;
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> out(1);
  for (char c : text)
    if (c == '\n')
      out.emplace_back();
    else
      out.back().push_back(c);
  return out;
}

TEST(MRZParser, ReadsEveryLayoutOfTheSpecimens) {
  for (const Specimen& s : kSpecimens) {
    SCOPED_TRACE(mrzFormatName(s.format));
    const MRZParseResult p = parseMRZ(s.text, kToday);
    ASSERT_TRUE(p.ok()) << p.message;
    const MRZRecord& r = *p.record;
    EXPECT_EQ(r.format, s.format);
    EXPECT_TRUE(r.valid);
    EXPECT_TRUE(r.corrected.empty());
    EXPECT_EQ(r.checks.size(), s.checks);
    EXPECT_EQ(r.documentCode, s.documentCode);
    EXPECT_EQ(r.issuingState, "UTO");
    EXPECT_EQ(r.surname, "ERIKSSON");
    EXPECT_EQ(r.givenNames, "ANNA MARIA");
    EXPECT_EQ(r.documentNumber, s.number);
    EXPECT_EQ(r.nationality, s.nationality);
    ASSERT_TRUE(r.birthDate && r.expiryDate);
    EXPECT_EQ(formatMRZDate(*r.birthDate), s.birth);
    EXPECT_EQ(formatMRZDate(*r.expiryDate), s.expiry);
    EXPECT_EQ(r.sex, s.sex);
    EXPECT_EQ(r.optionalData, s.optional);
    EXPECT_EQ(join(r.lines), s.text + "\n");
  }
}

int value(char c) {
  return c == '<' ? 0 : c <= '9' ? c - '0' : c - 'A' + 10;
}

// Every single wrong character in a place a check digit guards (or in a check digit) either
// leaves the zone not valid or is corrected back to what was printed. The only exceptions the
// check-digit arithmetic cannot see are swaps whose values differ by a multiple of 10 ('0'
// for 'A', '1' for 'B', ...); those are skipped.
TEST(MRZParser, NoSingleWrongCharacterInAGuardedPlaceIsReportedValid) {
  const std::string symbols = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ<";
  for (const Specimen& s : kSpecimens) {
    SCOPED_TRACE(mrzFormatName(s.format));
    const std::vector<std::string> lines = split(s.text);
    // The guarded places: every line but the one holding only code, state and name.
    const size_t first = s.format == MRZFormat::TD1 ? 0 : 1;
    const size_t last = s.format == MRZFormat::TD1 ? 1 : 1;
    int tried = 0, rescued = 0;
    for (size_t li = first; li <= last; ++li)
      for (size_t col = 0; col < lines[li].size(); ++col) {
        if (s.format == MRZFormat::TD1 && li == 0 && col < 5) continue;
        if ((s.format == MRZFormat::MRVA || s.format == MRZFormat::MRVB) && col >= 28) continue;
        if (s.format == MRZFormat::TD1 && li == 1 && col == 7) continue;  // sex: no digit
        if (s.format != MRZFormat::TD1 && col == 20) continue;
        if (s.format != MRZFormat::TD1 && col >= 10 && col < 13) continue;  // nationality
        if (s.format == MRZFormat::TD1 && li == 1 && col >= 15 && col < 18) continue;
        for (char c : symbols) {
          const char o = lines[li][col];
          if (c == o || (value(c) - value(o)) % 10 == 0) continue;
          std::vector<std::string> bad = lines;
          bad[li][col] = c;
          const MRZParseResult p = parseMRZ(join(bad), kToday);
          ASSERT_TRUE(p.ok());
          ++tried;
          if (!p.record->valid) continue;
          EXPECT_EQ(p.record->lines, lines) << "line " << li << " col " << col << ": " << c;
          ++rescued;
        }
      }
    EXPECT_GT(tried, 200);
    EXPECT_GT(rescued, 0);
  }
}

// Confusable characters put right by the field's type, and in mixed fields by the digits.
TEST(MRZParser, CorrectsConfusedCharactersAndSaysWhich) {
  struct Case {
    const char* what;
    std::vector<std::string> lines;
    std::vector<MRZCorrection> corrections;
    std::vector<MRZPlace> uncertain = {};
  };
  const std::vector<Case> cases = {
      {"letters for digits in dates and check digits",
       {"P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<",
        "L898902C36UTO7408I22F1204IS9ZE184226B<<<<<IO"},
       {{1, 17, 'I', '1', "birth_date"},
        {1, 25, 'I', '1', "expiry_date"},
        {1, 26, 'S', '5', "expiry_date"},
        {1, 42, 'I', '1', "optional_data_check"},
        {1, 43, 'O', '0', "composite_check"}}},
      {"digits for letters in states, names and sex",
       {"P<UT0ERIK55ON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<",
        "L898902C36UT07408122F1204159ZE184226B<<<<<10"},
       {{0, 4, '0', 'O', "issuing_state"},
        {0, 9, '5', 'S', "name"},
        {0, 10, '5', 'S', "name"},
        {1, 12, '0', 'O', "nationality"}}},
      {"document number chosen by its check digit among the unsure places",
       {"P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<",
        "L8989O2C36UTO7408122F1204159ZE184226B<<<<<10"},
       {{1, 5, 'O', '0', "document_number"}},
       {{1, 1}, {1, 2}, {1, 5}}},
      {"personal number chosen by its check digit and the composite",
       {"P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<",
        "L898902C36UTO7408122F1204159ZE1B4226B<<<<<10"},
       {{1, 31, 'B', '8', "optional_data"}},
       {{1, 31}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const MRZParseResult p = parseMRZ(join(c.lines), kToday, c.uncertain);
    ASSERT_TRUE(p.ok());
    EXPECT_TRUE(p.record->valid);
    EXPECT_EQ(p.record->corrected, c.corrections);
    EXPECT_EQ(join(p.record->lines), kSpecimens[0].text + "\n");
  }
}

TEST(MRZParser, RefusesWhatTheDigitsCannotSettle) {
  const struct {
    const char* what;
    std::string text;
  } cases[] = {
      // A check digit that disagrees and nothing confusable to change.
      {"wrong check digit",
       "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<\n"
       "L898902C37UTO7408122F1204159ZE184226B<<<<<10"},
      // A composite that no field explains.
      {"wrong composite",
       "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<\n"
       "L898902C36UTO7408122F1204159ZE184226B<<<<<11"},
      // A confused character in the number that the reader did not flag is not guessed at.
      {"unflagged confusion in a mixed field",
       "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<\n"
       "L8989O2C36UTO7408122F1204159ZE184226B<<<<<10"},
      {"symbol outside the set",
       "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<\n"
       "L898902C36UTO7408122F1204159ZE18#226B<<<<<10"},
      {"sex neither M, F nor unspecified",
       "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<\n"
       "L898902C36UTO7408122Q1204159ZE184226B<<<<<10"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const MRZParseResult p = parseMRZ(c.text, kToday);
    ASSERT_TRUE(p.ok());
    EXPECT_FALSE(p.record->valid);
  }
}

TEST(MRZParser, CheckDigitsDatesAndNames) {
  const std::pair<const char*, int> digits[] = {
      {"L898902C3", 6},      {"740812", 2}, {"120415", 9}, {"D23145890", 7},
      {"ZE184226B<<<<<", 1}, {"", 0},       {"<<<", 0},    {"AB#", -1}};
  for (const auto& [field, digit] : digits) EXPECT_EQ(mrzCheckDigit(field), digit) << field;

  // Centuries: a birth date never lies ahead; an expiry date at most 20 years ahead.
  const struct {
    const char* yymmdd;
    bool birth;
    const char* iso;  // nullptr: no date
  } dates[] = {{"740812", true, "1974-08-12"},  {"200101", true, "2020-01-01"},
               {"261125", true, "2026-11-25"},  {"261126", true, "1926-11-26"},
               {"461231", false, "2046-12-31"}, {"470101", false, "1947-01-01"},
               {"120415", false, "2012-04-15"}, {"000229", true, "2000-02-29"},
               {"010229", true, nullptr},       {"741312", true, nullptr},
               {"7408<<", true, nullptr},       {"740800", false, nullptr}};
  for (const auto& d : dates) {
    std::string line2 = "L898902C36UTO7408122F1204159ZE184226B<<<<<10";
    line2.replace(d.birth ? 13 : 21, 6, d.yymmdd);
    const MRZParseResult p =
        parseMRZ("P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<\n" + line2, kToday);
    ASSERT_TRUE(p.ok());
    const auto& got = d.birth ? p.record->birthDate : p.record->expiryDate;
    if (d.iso) {
      ASSERT_TRUE(got) << d.yymmdd;
      EXPECT_EQ(formatMRZDate(*got), d.iso);
    } else {
      EXPECT_FALSE(got) << d.yymmdd;
    }
  }

  const struct {
    const char* field;
    const char* surname;
    const char* given;
  } names[] = {{"ERIKSSON<<ANNA<MARIA", "ERIKSSON", "ANNA MARIA"},
               {"VAN<DER<STEEN<<MARIANNE<LOUISE", "VAN DER STEEN", "MARIANNE LOUISE"},
               {"MONONYM", "MONONYM", ""},
               {"<<ONLYGIVEN", "", "ONLYGIVEN"},
               {"HEGELER<<ALEXANDRA<<MARIA", "HEGELER", "ALEXANDRA MARIA"}};
  for (const auto& n : names) {
    std::string line1 = "P<UTO" + std::string(n.field);
    line1.resize(44, '<');
    const MRZParseResult p =
        parseMRZ(line1 + "\nL898902C36UTO7408122F1204159ZE184226B<<<<<10", kToday);
    ASSERT_TRUE(p.ok());
    EXPECT_EQ(p.record->surname, n.surname);
    EXPECT_EQ(p.record->givenNames, n.given);
  }
}

TEST(MRZParser, LongDocumentNumberAndShapes) {
  // A TD1 number of 12 characters: '<' where the digit would be, the last three characters
  // and the digit open the optional data.
  const std::string number = "D23145890AB1";
  std::string line1 = "I<UTO" + number.substr(0, 9) + "<" + number.substr(9) +
                      std::to_string(mrzCheckDigit(number)) + "<XY7";
  line1.resize(30, '<');
  std::string line2 = "7408122F1204159UTO<<<<<<<<<<<";
  const std::string composite =
      line1.substr(5, 25) + line2.substr(0, 7) + line2.substr(8, 7) + line2.substr(18, 11);
  line2 += std::to_string(mrzCheckDigit(composite));
  const MRZParseResult p =
      parseMRZ(line1 + "\r\n" + line2 + "\n\nerikSSON<<ANNA<MARIA<<<<<<<<<<", kToday);
  ASSERT_TRUE(p.ok()) << p.message;
  EXPECT_TRUE(p.record->valid);
  EXPECT_EQ(p.record->documentNumber, number);
  EXPECT_EQ(p.record->optionalData, "XY7");
  EXPECT_EQ(p.record->surname, "ERIKSSON");

  line1[16] = 'C';  // the continued number no longer matches its digit
  const MRZParseResult bad =
      parseMRZ(line1 + "\n" + line2 + "\nERIKSSON<<ANNA<<<<<<<<<<<<<<<<", kToday);
  ASSERT_TRUE(bad.ok());
  EXPECT_FALSE(bad.record->valid);

  const struct {
    std::string text;
    MRZError error;
  } shapes[] = {{"", MRZError::Empty},
                {"\n \r\n", MRZError::Empty},
                {std::string(30, '<') + "\n" + std::string(30, '<'), MRZError::BadShape},
                {std::string(44, '<') + "\n" + std::string(36, '<'), MRZError::BadShape},
                {std::string(44, '<'), MRZError::BadShape},
                {std::string(9000, '<'), MRZError::BadShape}};
  for (const auto& s : shapes) {
    const MRZParseResult r = parseMRZ(s.text, kToday);
    EXPECT_FALSE(r.ok());
    EXPECT_EQ(r.error, s.error);
  }
}

}  // namespace
}  // namespace kwq
