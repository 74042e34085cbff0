#include "kwqimage/MRZ.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <tuple>

namespace kwq {
namespace {

constexpr size_t kMaxInput = 4096;
// Alphanumeric fields try every mix of confusable characters up to this many places; beyond
// it the field is left as read (and its check fails), so a noisy read cannot search its way
// into agreement with the check digit.
constexpr int kMaxAmbiguousPlaces = 8;

enum class Kind : uint8_t { Alpha, Numeric, AlphaNum, Sex, Check };

struct Field {
  const char* name;
  int line;
  int start;
  int length;
  Kind kind;
};

// Letter read where a digit must stand, and the reverse: the pairs optical reading mixes up.
char asDigit(char c) {
  switch (c) {
    case 'O':
    case 'Q':
    case 'D':
    case 'U':
      return '0';
    case 'I':
    case 'L':
    case 'J':
      return '1';
    case 'Z':
      return '2';
    case 'S':
      return '5';
    case 'G':
      return '6';
    case 'T':
      return '7';
    case 'B':
      return '8';
    default:
      return 0;
  }
}

char asLetter(char c) {
  switch (c) {
    case '0':
      return 'O';
    case '1':
      return 'I';
    case '2':
      return 'Z';
    case '5':
      return 'S';
    case '6':
      return 'G';
    case '8':
      return 'B';
    default:
      return 0;
  }
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isLetter(char c) {
  return c >= 'A' && c <= 'Z';
}
bool isSymbol(char c) {
  return isDigit(c) || isLetter(c) || c == '<';
}

int value(char c) {
  if (isDigit(c)) return c - '0';
  if (isLetter(c)) return c - 'A' + 10;
  if (c == '<') return 0;
  return -1;
}

// Layouts: the fields each line holds, and the check digits with the characters they guard.
struct CheckSpec {
  const char* name;
  int line;
  int column;  // where the digit stands
  // Guarded spans (line, start, length), up to four.
  std::array<std::array<int, 3>, 4> spans;
  int spanCount;
};

struct Layout {
  MRZFormat format;
  int lines;
  int width;
  std::vector<Field> fields;
  std::vector<CheckSpec> checks;
};

const std::vector<Layout>& layouts() {
  static const std::vector<Layout> all = {
      {MRZFormat::TD1,
       3,
       30,
       {{"document_code", 0, 0, 2, Kind::Alpha},
        {"issuing_state", 0, 2, 3, Kind::Alpha},
        {"document_number", 0, 5, 9, Kind::AlphaNum},
        {"document_number_check", 0, 14, 1, Kind::Check},
        {"optional_data", 0, 15, 15, Kind::AlphaNum},
        {"birth_date", 1, 0, 6, Kind::Numeric},
        {"birth_date_check", 1, 6, 1, Kind::Check},
        {"sex", 1, 7, 1, Kind::Sex},
        {"expiry_date", 1, 8, 6, Kind::Numeric},
        {"expiry_date_check", 1, 14, 1, Kind::Check},
        {"nationality", 1, 15, 3, Kind::Alpha},
        {"optional_data_2", 1, 18, 11, Kind::AlphaNum},
        {"composite_check", 1, 29, 1, Kind::Check},
        {"name", 2, 0, 30, Kind::Alpha}},
       {{"document_number", 0, 14, {{{0, 5, 9}}}, 1},
        {"birth_date", 1, 6, {{{1, 0, 6}}}, 1},
        {"expiry_date", 1, 14, {{{1, 8, 6}}}, 1},
        {"composite", 1, 29, {{{0, 5, 25}, {1, 0, 7}, {1, 8, 7}, {1, 18, 11}}}, 4}}},
      {MRZFormat::TD2,
       2,
       36,
       {{"document_code", 0, 0, 2, Kind::Alpha},
        {"issuing_state", 0, 2, 3, Kind::Alpha},
        {"name", 0, 5, 31, Kind::Alpha},
        {"document_number", 1, 0, 9, Kind::AlphaNum},
        {"document_number_check", 1, 9, 1, Kind::Check},
        {"nationality", 1, 10, 3, Kind::Alpha},
        {"birth_date", 1, 13, 6, Kind::Numeric},
        {"birth_date_check", 1, 19, 1, Kind::Check},
        {"sex", 1, 20, 1, Kind::Sex},
        {"expiry_date", 1, 21, 6, Kind::Numeric},
        {"expiry_date_check", 1, 27, 1, Kind::Check},
        {"optional_data", 1, 28, 7, Kind::AlphaNum},
        {"composite_check", 1, 35, 1, Kind::Check}},
       {{"document_number", 1, 9, {{{1, 0, 9}}}, 1},
        {"birth_date", 1, 19, {{{1, 13, 6}}}, 1},
        {"expiry_date", 1, 27, {{{1, 21, 6}}}, 1},
        {"composite", 1, 35, {{{1, 0, 10}, {1, 13, 7}, {1, 21, 14}}}, 3}}},
      {MRZFormat::TD3,
       2,
       44,
       {{"document_code", 0, 0, 2, Kind::Alpha},
        {"issuing_state", 0, 2, 3, Kind::Alpha},
        {"name", 0, 5, 39, Kind::Alpha},
        {"document_number", 1, 0, 9, Kind::AlphaNum},
        {"document_number_check", 1, 9, 1, Kind::Check},
        {"nationality", 1, 10, 3, Kind::Alpha},
        {"birth_date", 1, 13, 6, Kind::Numeric},
        {"birth_date_check", 1, 19, 1, Kind::Check},
        {"sex", 1, 20, 1, Kind::Sex},
        {"expiry_date", 1, 21, 6, Kind::Numeric},
        {"expiry_date_check", 1, 27, 1, Kind::Check},
        {"optional_data", 1, 28, 14, Kind::AlphaNum},
        {"optional_data_check", 1, 42, 1, Kind::Check},
        {"composite_check", 1, 43, 1, Kind::Check}},
       {{"document_number", 1, 9, {{{1, 0, 9}}}, 1},
        {"birth_date", 1, 19, {{{1, 13, 6}}}, 1},
        {"expiry_date", 1, 27, {{{1, 21, 6}}}, 1},
        {"optional_data", 1, 42, {{{1, 28, 14}}}, 1},
        {"composite", 1, 43, {{{1, 0, 10}, {1, 13, 7}, {1, 21, 22}}}, 3}}},
      {MRZFormat::MRVA,
       2,
       44,
       {{"document_code", 0, 0, 2, Kind::Alpha},
        {"issuing_state", 0, 2, 3, Kind::Alpha},
        {"name", 0, 5, 39, Kind::Alpha},
        {"document_number", 1, 0, 9, Kind::AlphaNum},
        {"document_number_check", 1, 9, 1, Kind::Check},
        {"nationality", 1, 10, 3, Kind::Alpha},
        {"birth_date", 1, 13, 6, Kind::Numeric},
        {"birth_date_check", 1, 19, 1, Kind::Check},
        {"sex", 1, 20, 1, Kind::Sex},
        {"expiry_date", 1, 21, 6, Kind::Numeric},
        {"expiry_date_check", 1, 27, 1, Kind::Check},
        {"optional_data", 1, 28, 16, Kind::AlphaNum}},
       {{"document_number", 1, 9, {{{1, 0, 9}}}, 1},
        {"birth_date", 1, 19, {{{1, 13, 6}}}, 1},
        {"expiry_date", 1, 27, {{{1, 21, 6}}}, 1}}},
      {MRZFormat::MRVB,
       2,
       36,
       {{"document_code", 0, 0, 2, Kind::Alpha},
        {"issuing_state", 0, 2, 3, Kind::Alpha},
        {"name", 0, 5, 31, Kind::Alpha},
        {"document_number", 1, 0, 9, Kind::AlphaNum},
        {"document_number_check", 1, 9, 1, Kind::Check},
        {"nationality", 1, 10, 3, Kind::Alpha},
        {"birth_date", 1, 13, 6, Kind::Numeric},
        {"birth_date_check", 1, 19, 1, Kind::Check},
        {"sex", 1, 20, 1, Kind::Sex},
        {"expiry_date", 1, 21, 6, Kind::Numeric},
        {"expiry_date_check", 1, 27, 1, Kind::Check},
        {"optional_data", 1, 28, 8, Kind::AlphaNum}},
       {{"document_number", 1, 9, {{{1, 0, 9}}}, 1},
        {"birth_date", 1, 19, {{{1, 13, 6}}}, 1},
        {"expiry_date", 1, 27, {{{1, 21, 6}}}, 1}}},
  };
  return all;
}

const Layout* layoutFor(const std::vector<std::string>& lines) {
  MRZFormat f = MRZFormat::Unknown;
  if (lines.size() == 3 && lines[0].size() == 30 && lines[1].size() == 30 &&
      lines[2].size() == 30) {
    f = MRZFormat::TD1;
  } else if (lines.size() == 2 && lines[0].size() == lines[1].size() &&
             (lines[0].size() == 36 || lines[0].size() == 44)) {
    // Visas begin with 'V'; a misread 'V' as anything else makes it a TD2/TD3 whose composite
    // digit then fails, so the zone is never valid under the wrong layout.
    const bool visa = lines[0][0] == 'V';
    if (lines[0].size() == 36)
      f = visa ? MRZFormat::MRVB : MRZFormat::TD2;
    else
      f = visa ? MRZFormat::MRVA : MRZFormat::TD3;
  }
  for (const Layout& l : layouts())
    if (l.format == f) return &l;
  return nullptr;
}

std::string guarded(const std::vector<std::string>& lines, const CheckSpec& c) {
  std::string s;
  for (int i = 0; i < c.spanCount; ++i)
    s += lines[c.spans[i][0]].substr(c.spans[i][1], c.spans[i][2]);
  return s;
}

bool checkAgrees(const std::vector<std::string>& lines, const CheckSpec& c) {
  const char d = lines[c.line][c.column];
  const int want = mrzCheckDigit(guarded(lines, c));
  if (want < 0) return false;
  // An optional field left empty may carry '<' in place of its digit 0.
  if (d == '<') {
    const std::string g = guarded(lines, c);
    return std::all_of(g.begin(), g.end(), [](char x) { return x == '<'; });
  }
  return isDigit(d) && d - '0' == want;
}

// Does the check digit `c` cover the characters of field `f`?
bool covers(const CheckSpec& c, const Field& f) {
  for (int i = 0; i < c.spanCount; ++i)
    if (c.spans[i][0] == f.line && f.start >= c.spans[i][1] &&
        f.start + f.length <= c.spans[i][1] + c.spans[i][2])
      return true;
  return false;
}

bool leapYear(int y) {
  return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

std::optional<MRZDate> date(const std::string& s, bool birth, const MRZDate& today) {
  if (s.size() != 6 || !std::all_of(s.begin(), s.end(), isDigit)) return std::nullopt;
  const int yy = (s[0] - '0') * 10 + (s[1] - '0');
  const int mm = (s[2] - '0') * 10 + (s[3] - '0');
  const int dd = (s[4] - '0') * 10 + (s[5] - '0');
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (mm < 1 || mm > 12 || dd < 1) return std::nullopt;
  const int century = today.year / 100 * 100;
  int year = century + yy;
  if (birth) {
    // Never in the future.
    const MRZDate d{year, mm, dd};
    if (std::tie(d.year, d.month, d.day) > std::tie(today.year, today.month, today.day))
      year -= 100;
  } else {
    // Expiry at most 20 years ahead, else it was in the century before.
    if (year > today.year + 20)
      year -= 100;
    else if (year + 100 <= today.year + 20)
      year += 100;
  }
  const int days = kDays[mm - 1] + (mm == 2 && leapYear(year) ? 1 : 0);
  if (dd > days) return std::nullopt;
  return MRZDate{year, mm, dd};
}

MRZDate currentDate() {
  const std::time_t t = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&t, &tm);
  return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday};
}

std::string withoutFillers(std::string_view s) {
  std::string out;
  bool gap = false;
  for (char c : s) {
    if (c == '<') {
      gap = !out.empty();
      continue;
    }
    if (gap) out += ' ';
    gap = false;
    out += c;
  }
  return out;
}

void splitName(std::string_view name, MRZRecord& r) {
  const size_t sep = name.find("<<");
  r.surname = withoutFillers(name.substr(0, sep));
  r.givenNames = sep == std::string_view::npos ? "" : withoutFillers(name.substr(sep + 2));
}

// Sets confusable characters of a field whose type allows only letters or only digits.
void correctByType(std::vector<std::string>& lines, const Field& f, MRZRecord& r) {
  for (int i = 0; i < f.length; ++i) {
    char& c = lines[f.line][f.start + i];
    char to = 0;
    if ((f.kind == Kind::Alpha) && isDigit(c)) to = asLetter(c);
    if ((f.kind == Kind::Numeric || f.kind == Kind::Check) && isLetter(c)) to = asDigit(c);
    if (f.kind == Kind::Sex && c == 'H') to = 'M';
    if (f.kind == Kind::Sex && c == 'E') to = 'F';
    if (to) {
      r.corrected.push_back({f.line, f.start + i, c, to, f.name});
      c = to;
    }
  }
}

// Alphanumeric field guarded by a check digit: when the digit disagrees, tries swapping
// confusable characters; accepts the one mix with the fewest swaps that agrees with both this
// digit and the composite (where there is one), or nothing when that mix is not unique.
void correctByCheck(std::vector<std::string>& lines, const Field& f, const CheckSpec& c,
                    const CheckSpec* composite, const std::vector<MRZPlace>& uncertain,
                    MRZRecord& r) {
  if (checkAgrees(lines, c)) return;
  std::vector<int> places;
  for (int i = 0; i < f.length; ++i) {
    const char ch = lines[f.line][f.start + i];
    const bool unsure = std::any_of(uncertain.begin(), uncertain.end(), [&](const MRZPlace& p) {
      return p.line == f.line && p.column == f.start + i;
    });
    if (unsure && ((isDigit(ch) && asLetter(ch)) || (isLetter(ch) && asDigit(ch))))
      places.push_back(i);
  }
  if (places.empty() || static_cast<int>(places.size()) > kMaxAmbiguousPlaces) return;
  const std::string original = lines[f.line].substr(f.start, f.length);
  int bestSwaps = 1 << 30, bestCount = 0;
  unsigned bestMask = 0;
  for (unsigned mask = 1; mask < (1u << places.size()); ++mask) {
    std::string& line = lines[f.line];
    for (size_t k = 0; k < places.size(); ++k) {
      const char o = original[places[k]];
      line[f.start + places[k]] = (mask >> k & 1) ? (isDigit(o) ? asLetter(o) : asDigit(o)) : o;
    }
    if (!checkAgrees(lines, c) || (composite && !checkAgrees(lines, *composite))) continue;
    const int swaps = __builtin_popcount(mask);
    if (swaps < bestSwaps) {
      bestSwaps = swaps;
      bestCount = 1;
      bestMask = mask;
    } else if (swaps == bestSwaps) {
      ++bestCount;
    }
  }
  lines[f.line].replace(f.start, f.length, original);
  if (bestCount != 1) return;
  for (size_t k = 0; k < places.size(); ++k) {
    if (!(bestMask >> k & 1)) continue;
    const char o = original[places[k]];
    const char to = isDigit(o) ? asLetter(o) : asDigit(o);
    lines[f.line][f.start + places[k]] = to;
    r.corrected.push_back({f.line, f.start + places[k], o, to, f.name});
  }
}

const Field* field(const Layout& l, std::string_view name) {
  for (const Field& f : l.fields)
    if (name == f.name) return &f;
  return nullptr;
}

std::string text(const std::vector<std::string>& lines, const Field* f) {
  return f ? lines[f->line].substr(f->start, f->length) : std::string();
}

}  // namespace

int32_t mrzCheckDigit(std::string_view s) {
  static constexpr int kWeights[] = {7, 3, 1};
  int sum = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    const int v = value(s[i]);
    if (v < 0) return -1;
    sum = (sum + v * kWeights[i % 3]) % 10;
  }
  return sum;
}

std::string formatMRZDate(const MRZDate& d) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", d.year, d.month, d.day);
  return buf;
}

const char* mrzFormatName(MRZFormat f) {
  switch (f) {
    case MRZFormat::TD1:
      return "TD1";
    case MRZFormat::TD2:
      return "TD2";
    case MRZFormat::TD3:
      return "TD3";
    case MRZFormat::MRVA:
      return "MRV-A";
    case MRZFormat::MRVB:
      return "MRV-B";
    default:
      return "unknown";
  }
}

MRZParseResult parseMRZ(std::string_view input, std::optional<MRZDate> todayIn,
                        const std::vector<MRZPlace>& uncertain) {
  MRZParseResult result;
  input = input.substr(0, std::min(input.size(), kMaxInput));
  std::vector<std::string> lines;
  std::string cur;
  for (size_t i = 0; i <= input.size(); ++i) {
    const char c = i < input.size() ? input[i] : '\n';
    if (c == '\n') {
      if (!cur.empty()) lines.push_back(cur);
      cur.clear();
    } else if (c != '\r' && c != ' ' && c != '\t') {
      cur += (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
    }
  }
  if (lines.empty()) {
    result.error = MRZError::Empty;
    result.message = "no text";
    return result;
  }
  const Layout* layout = layoutFor(lines);
  if (!layout) {
    result.error = MRZError::BadShape;
    result.message = std::to_string(lines.size()) + " lines of " +
                     std::to_string(lines.front().size()) +
                     " characters: not 3 x 30, 2 x 36 or 2 x 44";
    return result;
  }
  MRZRecord r;
  r.format = layout->format;
  const MRZDate today = todayIn.value_or(currentDate());

  for (const Field& f : layout->fields) correctByType(lines, f, r);
  const CheckSpec* composite = nullptr;
  for (const CheckSpec& c : layout->checks)
    if (std::string_view(c.name) == "composite") composite = &c;
  for (const CheckSpec& c : layout->checks) {
    if (&c == composite) continue;
    for (const Field& f : layout->fields)
      if (f.kind == Kind::AlphaNum && covers(c, f))
        correctByCheck(lines, f, c, composite, uncertain, r);
  }
  // Optional data covered only by the composite (TD1's two fields, TD2's) is corrected last.
  if (composite)
    for (const Field& f : layout->fields)
      if (f.kind == Kind::AlphaNum && std::string_view(f.name).starts_with("optional_data")) {
        bool own = false;
        for (const CheckSpec& c : layout->checks)
          if (&c != composite && covers(c, f)) own = true;
        if (!own) correctByCheck(lines, f, *composite, nullptr, uncertain, r);
      }

  bool valid = true;
  for (const std::string& l : lines)
    if (!std::all_of(l.begin(), l.end(), isSymbol)) valid = false;
  for (const Field& f : layout->fields) {
    const std::string t = text(lines, &f);
    if (f.kind == Kind::Alpha &&
        !std::all_of(t.begin(), t.end(), [](char c) { return isLetter(c) || c == '<'; }))
      valid = false;
    if ((f.kind == Kind::Numeric || f.kind == Kind::Check) &&
        !std::all_of(t.begin(), t.end(), [](char c) { return isDigit(c) || c == '<'; }))
      valid = false;
    if (f.kind == Kind::Sex && t != "M" && t != "F" && t != "<" && t != "X") valid = false;
  }
  for (const CheckSpec& c : layout->checks) r.checks.push_back({c.name, checkAgrees(lines, c)});
  // The document code's first letter is fixed by the layout: P for passports (TD3), A, C or I
  // for cards (TD1, TD2), V for visas.
  const char kind = lines[0][0];
  const bool kindOk = layout->format == MRZFormat::TD3 ? kind == 'P'
                      : layout->format == MRZFormat::MRVA || layout->format == MRZFormat::MRVB
                          ? kind == 'V'
                          : kind == 'A' || kind == 'C' || kind == 'I';
  if (!kindOk) valid = false;

  r.documentCode = withoutFillers(text(lines, field(*layout, "document_code")));
  r.issuingState = withoutFillers(text(lines, field(*layout, "issuing_state")));
  splitName(text(lines, field(*layout, "name")), r);
  r.documentNumber = withoutFillers(text(lines, field(*layout, "document_number")));
  r.optionalData = withoutFillers(text(lines, field(*layout, "optional_data")));
  r.optionalData2 = withoutFillers(text(lines, field(*layout, "optional_data_2")));
  // A number longer than nine characters: '<' in the check digit's place, the rest of the
  // number and then its check digit at the start of the optional data.
  const Field* optional = field(*layout, "optional_data");
  if ((layout->format == MRZFormat::TD1 || layout->format == MRZFormat::TD2) &&
      text(lines, field(*layout, "document_number_check")) == "<") {
    const std::string opt = text(lines, optional);
    const size_t end = opt.find('<');
    if (end != std::string::npos && end >= 1) {
      const std::string rest = opt.substr(0, end - 1);
      const std::string number = text(lines, field(*layout, "document_number")) + rest;
      const bool ok = isDigit(opt[end - 1]) && mrzCheckDigit(number) == opt[end - 1] - '0';
      r.documentNumber = withoutFillers(text(lines, field(*layout, "document_number"))) + rest;
      r.optionalData = withoutFillers(opt.substr(end));
      for (MRZCheck& c : r.checks)
        if (c.field == "document_number") c.ok = ok;
    }
  }
  for (const MRZCheck& c : r.checks) valid = valid && c.ok;
  r.nationality = withoutFillers(text(lines, field(*layout, "nationality")));
  r.birthDateText = text(lines, field(*layout, "birth_date"));
  r.expiryDateText = text(lines, field(*layout, "expiry_date"));
  r.birthDate = date(r.birthDateText, true, today);
  r.expiryDate = date(r.expiryDateText, false, today);
  const std::string sex = text(lines, field(*layout, "sex"));
  r.sex = sex == "M" ? 'M' : sex == "F" ? 'F' : 'X';
  r.valid = valid;
  r.lines = std::move(lines);
  result.record = std::move(r);
  return result;
}

}  // namespace kwq
