// The AAMVA DL/ID PDF417 text: header, subfile directory, data elements and typed fields.
//
// Layout of a standard record (offsets from the "@"):
//   "@" LF RS CR "ANSI " IIN(6) version(2) jurisdiction-version(2, not in version 1)
//   entries(2), then per entry: type(2) offset(4) length(4), then the subfiles, each its
//   type followed by elements "IDvalue" separated by LF and ended by CR.
// Everything is located by position first and by search second, so that a directory that is
// a few bytes off, or a subfile without its designator, still yields its elements.

#include "kwqimage/AAMVA.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <exception>

namespace kwq {
namespace {

constexpr size_t kMaxInput = 64 * 1024;
// How far from its stated offset a subfile designator is still taken for the stated one.
constexpr size_t kOffsetSlack = 16;

bool isSeparator(char c) {
  // LF, CR, and the ASCII information separators some issuers put between elements.
  return c == '\n' || c == '\r' || c == '\x1c' || c == '\x1d' || c == '\x1e';
}

bool isUpper(char c) {
  return c >= 'A' && c <= 'Z';
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// A data element identifier: three characters, letters then letter or digit ("DAQ", "ZVA").
bool looksLikeId(std::string_view s, size_t at) {
  return at + 3 <= s.size() && isUpper(s[at]) && isUpper(s[at + 1]) &&
         (isUpper(s[at + 2]) || isDigit(s[at + 2]));
}

std::optional<uint32_t> digits(std::string_view s, size_t at, size_t count) {
  if (at > s.size() || s.size() - at < count) return std::nullopt;
  uint32_t v = 0;
  for (size_t i = 0; i < count; ++i) {
    if (!isDigit(s[at + i])) return std::nullopt;
    v = v * 10 + static_cast<uint32_t>(s[at + i] - '0');
  }
  return v;
}

std::string trim(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\0')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\0')) --e;
  return std::string(s.substr(b, e - b));
}

bool validDate(int y, int m, int d) {
  static constexpr std::array<int, 12> kDays{31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (y < 1900 || y > 2199 || m < 1 || m > 12 || d < 1) return false;
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  if (m == 2 && !leap) return d <= 28;
  return d <= kDays[static_cast<size_t>(m - 1)];
}

// An eight-digit date (separators such as "-" or "/" ignored) read in the order the card's
// version and country call for, or in the other order when that one is no date.
std::optional<AAMVADate> parseDate(const std::string& value, bool yearFirst, const char* id,
                                   std::vector<std::string>& warnings) {
  std::string d;
  for (char c : value)
    if (isDigit(c)) d += c;
  if (d.size() != 8) {
    if (!value.empty()) warnings.push_back(std::string(id) + " is not an eight-digit date");
    return std::nullopt;
  }
  auto num = [&d](size_t at, size_t n) { return std::stoi(d.substr(at, n)); };
  const AAMVADate ymd{num(0, 4), num(4, 2), num(6, 2)};  // CCYYMMDD
  const AAMVADate mdy{num(4, 4), num(0, 2), num(2, 2)};  // MMDDCCYY
  const AAMVADate& first = yearFirst ? ymd : mdy;
  const AAMVADate& second = yearFirst ? mdy : ymd;
  if (validDate(first.year, first.month, first.day)) return first;
  if (validDate(second.year, second.month, second.day)) {
    warnings.push_back(std::string(id) + " is written " + (yearFirst ? "MMDDCCYY" : "CCYYMMDD") +
                       " instead of " + (yearFirst ? "CCYYMMDD" : "MMDDCCYY"));
    return second;
  }
  warnings.push_back(std::string(id) + " is no valid date");
  return std::nullopt;
}

// The start of a subfile whose directory entry says `type` at `expected`: the designator at
// the stated place, else the designator nearest to it that is followed by an element, else
// (for a missing designator) the first element at or after the stated place. `npos` when the
// subfile cannot be found. `skip` is where the subfiles may begin (after the directory).
size_t locateSubfile(std::string_view s, const std::string& type, size_t expected, size_t skip,
                     std::vector<std::string>& warnings) {
  auto designatorAt = [&](size_t at) {
    return at >= skip && at + type.size() <= s.size() && s.compare(at, type.size(), type) == 0 &&
           (looksLikeId(s, at + type.size()) ||
            (at + type.size() < s.size() && isSeparator(s[at + type.size()])));
  };
  if (designatorAt(expected)) return expected + type.size();
  // Nearest designator within the slack, then anywhere after the directory.
  size_t best = std::string_view::npos, bestDistance = std::string_view::npos;
  for (size_t at = skip; at + type.size() <= s.size(); ++at) {
    if (!designatorAt(at)) continue;
    const size_t distance = at > expected ? at - expected : expected - at;
    if (distance < bestDistance) {
      best = at;
      bestDistance = distance;
    }
  }
  if (best != std::string_view::npos) {
    char note[96];
    std::snprintf(note, sizeof note, "subfile %s found %s%zu bytes from its stated offset",
                  type.c_str(), best < expected ? "-" : "+", bestDistance);
    if (bestDistance > 0) warnings.push_back(note);
    if (bestDistance > kOffsetSlack) warnings.push_back("subfile " + type + " found by search");
    return best + type.size();
  }
  if (type != "DL" && type != "ID") return std::string_view::npos;
  size_t at = std::max(skip, std::min(expected, s.size()));
  while (at < s.size() && isSeparator(s[at])) ++at;
  // DL and ID elements all begin with "D".
  auto element = [&s](size_t p) { return looksLikeId(s, p) && s[p] == 'D'; };
  if (!element(at)) {
    // The stated place is wrong too: the first element after the directory.
    at = skip;
    while (at < s.size() && isSeparator(s[at])) ++at;
    if (!element(at)) return std::string_view::npos;
  }
  warnings.push_back("subfile " + type + " has no designator");
  return at;
}

AAMVAParseResult fail(AAMVAError error, std::string message) {
  AAMVAParseResult r;
  r.error = error;
  r.message = std::move(message);
  return r;
}

AAMVAParseResult parse(std::string_view s) {
  if (s.empty()) return fail(AAMVAError::Empty, "empty text");
  AAMVARecord rec;
  if (s.size() > kMaxInput) {
    s = s.substr(0, kMaxInput);
    rec.warnings.push_back("text cut at 64 KiB");
  }

  // Compliance indicator, a few separator bytes, the file type.
  size_t at = s.find('@');
  if (at == std::string_view::npos || at > 3)
    return fail(AAMVAError::NoHeader, "no \"@\" compliance indicator at the start");
  const size_t base = at;  // offsets count from here
  if (at > 0) rec.warnings.push_back("bytes before the compliance indicator");
  size_t type = std::string_view::npos;
  bool oldType = false;
  for (size_t p = at + 1; p < s.size() && p <= at + 8; ++p) {
    if (s.compare(p, 4, "ANSI") == 0) {
      type = p;
      break;
    }
    if (s.compare(p, 5, "AAMVA") == 0) {
      type = p;
      oldType = true;
      break;
    }
  }
  if (type == std::string_view::npos)
    return fail(AAMVAError::NoHeader, "no \"ANSI\" file type after the compliance indicator");
  if (s.substr(at + 1, type - at - 1) != "\n\x1e\r")
    rec.warnings.push_back("header separators are not LF, RS, CR");
  at = type + (oldType ? 5 : 4);
  if (oldType) {
    rec.warnings.push_back("file type \"AAMVA\" instead of \"ANSI \"");
  } else if (at < s.size() && s[at] == ' ') {
    ++at;
  } else {
    rec.warnings.push_back("no space after \"ANSI\"");
  }

  const auto iin = digits(s, at, 6);
  if (!iin)
    return fail(AAMVAError::BadHeader, "issuer identification number at byte " +
                                           std::to_string(at) + " is not six digits");
  rec.issuerIdentificationNumber = std::string(s.substr(at, 6));
  at += 6;
  const auto version = digits(s, at, 2);
  if (!version)
    return fail(AAMVAError::BadHeader,
                "version at byte " + std::to_string(at) + " is not two digits");
  rec.aamvaVersion = static_cast<int32_t>(*version);
  at += 2;
  if (rec.aamvaVersion >= 2) {
    const auto jv = digits(s, at, 2);
    if (!jv)
      return fail(AAMVAError::BadHeader,
                  "jurisdiction version at byte " + std::to_string(at) + " is not two digits");
    rec.jurisdictionVersion = static_cast<int32_t>(*jv);
    at += 2;
  }
  const auto entries = digits(s, at, 2);
  if (!entries || *entries == 0)
    return fail(AAMVAError::BadHeader,
                "number of entries at byte " + std::to_string(at) + " is not a count of 1 to 99");
  rec.numberOfEntries = static_cast<int32_t>(*entries);
  at += 2;

  // The directory: stops at the first entry that is not two letters and eight digits. The
  // subfiles begin after the declared directory even when it is cut short.
  const size_t declaredEnd = std::min(s.size(), at + 10 * size_t{*entries});
  for (uint32_t i = 0; i < *entries; ++i) {
    const auto offset = digits(s, at + 2, 4), length = digits(s, at + 6, 4);
    if (!looksLikeId(s, at) || !offset || !length) {
      rec.warnings.push_back("subfile directory ends after " + std::to_string(i) + " of " +
                             std::to_string(*entries) + " entries");
      break;
    }
    AAMVASubfile sub;
    sub.type = std::string(s.substr(at, 2));
    sub.offset = *offset;
    sub.length = *length;
    rec.subfiles.push_back(std::move(sub));
    at += 10;
  }
  const size_t directoryEnd = std::max(at, declaredEnd);
  if (rec.subfiles.empty()) {
    // No usable directory: a DL subfile right after the header is still worth a try.
    AAMVASubfile sub;
    sub.type = "DL";
    sub.offset = static_cast<uint32_t>(directoryEnd - base);
    rec.subfiles.push_back(std::move(sub));
  }

  for (AAMVASubfile& sub : rec.subfiles)
    sub.foundAt = locateSubfile(s, sub.type, base + sub.offset, directoryEnd, rec.warnings);

  // Each subfile runs to the next one found after it, or to the end of the text.
  bool crInside = false;
  std::string_view fieldSubfile;
  std::map<std::string, std::string> fieldElements;
  for (const AAMVASubfile& sub : rec.subfiles) {
    if (sub.foundAt == std::string_view::npos) {
      rec.warnings.push_back("subfile " + sub.type + " not found");
      continue;
    }
    size_t end = s.size();
    for (const AAMVASubfile& other : rec.subfiles)
      if (other.foundAt != std::string_view::npos && other.foundAt > sub.foundAt)
        end = std::min(end, other.foundAt - std::min(other.foundAt, other.type.size()));
    std::map<std::string, std::string> elements;
    size_t p = sub.foundAt;
    bool skipped = false;
    while (p < end) {
      size_t q = p;
      while (q < end && !isSeparator(s[q])) ++q;
      const std::string_view token = s.substr(p, q - p);
      if (!token.empty()) {
        if (looksLikeId(token, 0))
          elements.emplace(std::string(token.substr(0, 3)), trim(token.substr(3)));
        else
          skipped = true;
      }
      if (q < end && s[q] == '\r' && q + 1 < end) crInside = true;
      p = q + 1;
    }
    if (skipped) rec.warnings.push_back("unreadable data element skipped in subfile " + sub.type);
    if ((sub.type == "DL" || sub.type == "ID") && fieldSubfile.empty() && !elements.empty()) {
      fieldSubfile = sub.type;
      fieldElements = elements;
    }
    for (auto& [id, value] : elements) rec.elements.emplace(id, value);
  }
  if (crInside) rec.warnings.push_back("CR between data elements");
  if (fieldSubfile.empty())
    return fail(AAMVAError::NoDataElements, "no DL or ID subfile with data elements");
  rec.documentType = std::string(fieldSubfile);

  auto get = [&fieldElements](const char* id) -> std::string {
    const auto it = fieldElements.find(id);
    return it == fieldElements.end() ? std::string() : it->second;
  };
  rec.familyName = get("DCS");
  rec.givenName = get("DAC");
  rec.middleName = get("DAD");
  if (rec.familyName.empty()) rec.familyName = get("DAB");
  if (rec.givenName.empty()) {
    // Version 2 puts given names together in DCT ("FIRST,MIDDLE" or "FIRST MIDDLE").
    const std::string given = get("DCT");
    const size_t cut = given.find_first_of(", ");
    rec.givenName = trim(given.substr(0, cut));
    if (cut != std::string::npos && rec.middleName.empty())
      rec.middleName = trim(given.substr(cut + 1));
  }
  if (rec.familyName.empty() || rec.givenName.empty()) {
    // Version 1 full name: "FAMILY,GIVEN,MIDDLE" (some issuers use "$" or spaces).
    std::string full = get("DAA");
    std::replace(full.begin(), full.end(), '$', ',');
    std::vector<std::string> parts;
    size_t from = 0;
    const char* cut = full.find(',') != std::string::npos ? "," : " ";
    while (from <= full.size()) {
      const size_t to = full.find_first_of(cut, from);
      const std::string part = trim(full.substr(from, to - from));
      if (!part.empty()) parts.push_back(part);
      if (to == std::string::npos) break;
      from = to + 1;
    }
    if (rec.familyName.empty() && !parts.empty()) rec.familyName = parts[0];
    if (rec.givenName.empty() && parts.size() > 1) rec.givenName = parts[1];
    if (rec.middleName.empty() && parts.size() > 2) rec.middleName = parts[2];
  }
  rec.customerId = get("DAQ");
  rec.documentDiscriminator = get("DCF");
  rec.street = get("DAG");
  rec.city = get("DAI");
  rec.jurisdiction = get("DAJ");
  rec.postalCode = get("DAK");
  rec.country = get("DCG");
  rec.vehicleClass = get("DCA");
  rec.height = get("DAU");
  rec.eyeColor = get("DAY");
  const std::string sex = get("DBC");
  if (sex == "1" || sex == "M")
    rec.sex = AAMVASex::Male;
  else if (sex == "2" || sex == "F")
    rec.sex = AAMVASex::Female;
  else if (sex == "9" || sex == "X")
    rec.sex = AAMVASex::NotSpecified;

  // Version 1 wrote CCYYMMDD; later versions MMDDCCYY in the USA and CCYYMMDD in Canada.
  const bool canada = rec.country == "CAN";
  const bool yearFirst = rec.aamvaVersion <= 1 || canada;
  rec.dateOfBirth = parseDate(get("DBB"), yearFirst, "DBB", rec.warnings);
  rec.expirationDate = parseDate(get("DBA"), yearFirst, "DBA", rec.warnings);
  rec.issueDate = parseDate(get("DBD"), yearFirst, "DBD", rec.warnings);

  AAMVAParseResult result;
  result.record = std::move(rec);
  return result;
}

}  // namespace

AAMVAParseResult parseAAMVA(std::string_view text) {
  try {
    return parse(text);
  } catch (const std::exception& e) {
    return fail(AAMVAError::BadHeader, std::string("unreadable record: ") + e.what());
  }
}

std::string formatAAMVADate(const AAMVADate& date) {
  char out[32];
  std::snprintf(out, sizeof out, "%04d-%02d-%02d", date.year, date.month, date.day);
  return out;
}

}  // namespace kwq
