#pragma once

// Machine-readable zones of passports, identity cards and visas (ICAO 9303): the five layouts
// (TD1 three lines of 30, TD2 two of 36, TD3 two of 44, visas MRV-A two of 44 and MRV-B two of
// 36), their check digits, and the correction of characters that optical reading confuses.
//
// A zone is valid only when every check digit it carries agrees with its field (and the
// composite digit with the whole zone). Characters that the reading may have confused (0/O,
// 1/I, 2/Z, 5/S, 8/B, 6/G) are set by the field's type: digits where only digits may stand
// (dates, check digits), letters where only letters may (country codes, names). In fields that
// mix both (document number, optional data) text alone cannot tell a confused character from
// any other misreading (one wrong character anywhere and one swap elsewhere can always satisfy
// a check digit), so there the check digits choose only among the places the reader says it
// was unsure of, and only when exactly one choice with the fewest changes agrees with them.
// Every change is listed in `corrected`.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"

namespace kwq {

class Image;

/// The zone's layout.
enum class MRZFormat : uint8_t { Unknown, TD1, TD2, TD3, MRVA, MRVB };

/// A calendar date read from a zone's YYMMDD field.
struct MRZDate {
  int32_t year = 0;   ///< four digits, century chosen from the date's meaning
  int32_t month = 0;  ///< 1..12
  int32_t day = 0;    ///< 1..31, valid for the month
  /// Equal when year, month and day are.
  friend bool operator==(const MRZDate&, const MRZDate&) = default;
};

/// One check digit: which field it guards ("document_number", "birth_date", "expiry_date",
/// "optional_data", "composite") and whether it agrees.
struct MRZCheck {
  std::string field;  ///< the guarded field's name, as above
  bool ok = false;    ///< the digit read agrees with the field
  /// Equal when both members are.
  friend bool operator==(const MRZCheck&, const MRZCheck&) = default;
};

/// One character changed from what was read: its place (0-based line and column), the
/// character read, the one put in its place and the field it belongs to.
struct MRZCorrection {
  int32_t line = 0;    ///< 0-based line of the zone
  int32_t column = 0;  ///< 0-based column in that line
  char from = 0;       ///< the character read
  char to = 0;         ///< the character put in its place
  std::string field;   ///< the field it belongs to ("document_number", "issuing_state", ...)
  /// Equal when every member is.
  friend bool operator==(const MRZCorrection&, const MRZCorrection&) = default;
};

/// A parsed zone. Text fields have their fillers removed; dates are none when the field is
/// not a valid date (an unknown day or month, "<<", is allowed on some documents).
struct MRZRecord {
  MRZFormat format = MRZFormat::Unknown;  ///< the layout the lines were read as
  /// Every check digit agrees, every field holds only what its type allows and the document
  /// code begins as the layout requires (P for TD3, A, C or I for TD1 and TD2, V for visas).
  bool valid = false;
  /// The zone's lines after correction, fillers kept.
  std::vector<std::string> lines;

  std::string documentCode;          ///< "P", "I", "ID", "V", "AC", ...
  std::string issuingState;          ///< three letters ("UTO"); "D" for Germany
  std::string surname;               ///< primary identifier, words separated by spaces
  std::string givenNames;            ///< secondary identifier, words separated by spaces
  std::string documentNumber;        ///< with the TD1/TD2 long-number continuation joined on
  std::string nationality;           ///< three letters
  std::optional<MRZDate> birthDate;  ///< none when the field is no valid date
  std::string birthDateText;         ///< the six characters as read (after correction)
  /// 'M', 'F' or 'X' (unspecified, written '<' in the zone).
  char sex = 'X';
  std::optional<MRZDate> expiryDate;  ///< none when the field is no valid date
  std::string expiryDateText;         ///< the six characters as read (after correction)
  /// Optional data: TD1 line 1 (after a long number), TD2/visa line 2, TD3 personal number.
  std::string optionalData;
  /// TD1 only: the optional data of line 2.
  std::string optionalData2;

  /// Every check digit the format carries, in the order of the zone.
  std::vector<MRZCheck> checks;
  /// Every character changed from what was read, in the order of the zone.
  std::vector<MRZCorrection> corrected;
};

/// Why a text is not a zone at all.
enum class MRZError : uint8_t {
  None,
  /// No lines.
  Empty,
  /// Neither three lines of 30 nor two of 36 or 44 characters.
  BadShape,
};

/// A parse's outcome: a record (valid or not), or an error saying why the text is no zone.
struct MRZParseResult {
  std::optional<MRZRecord> record;  ///< the zone, valid or not; none on an error
  MRZError error = MRZError::None;  ///< why there is no record
  std::string message;              ///< the error in words, empty without one
  /// True when a record was parsed (valid or not).
  bool ok() const { return record.has_value(); }
};

/// A character's place in the zone: 0-based line and column.
struct MRZPlace {
  int32_t line = 0;    ///< 0-based line
  int32_t column = 0;  ///< 0-based column
};

/// Parses a zone given as its lines separated by line feeds (a CR before an LF, spaces and
/// empty lines are ignored; lower-case letters are taken as capitals). `today` settles the
/// centuries: a birth date is never in the future, an expiry date at most 20 years ahead; no
/// value means the system's current UTC date. Any bytes are accepted; text over 4 KiB is read
/// up to that size. `uncertain` lists the places where the reader could not tell a letter
/// from the digit it resembles; only these are changed to satisfy a check digit in fields that
/// hold both. Thread: any.
KWQ_EXPORT MRZParseResult parseMRZ(std::string_view text,
                                   std::optional<MRZDate> today = std::nullopt,
                                   const std::vector<MRZPlace>& uncertain = {});

/// The check digit of `field`: weights 7, 3, 1 repeating over values '<' 0, '0'-'9' 0-9,
/// 'A'-'Z' 10-35, modulo 10. Returns -1 when the field holds any other character.
KWQ_EXPORT int32_t mrzCheckDigit(std::string_view field);

/// "YYYY-MM-DD". Thread: any.
KWQ_EXPORT std::string formatMRZDate(const MRZDate& date);

/// "TD1", "TD2", "TD3", "MRV-A", "MRV-B" or "unknown".
KWQ_EXPORT const char* mrzFormatName(MRZFormat format);

/// A zone read from an image: the record and where the zone lies.
struct MRZReading {
  MRZRecord record;  ///< the parsed zone; `valid` says whether it can be trusted
  /// The zone's four corners in image pixels, clockwise from the top left of its text as read
  /// (so they turn with the document).
  Point corners[4];
  /// Mean character height in pixels.
  double characterHeight = 0;
};

/// Finds and reads the machine-readable zone in an image, at any angle. Returns none when no
/// zone is found or its lines cannot be read to their full length; a zone that is read but
/// fails its check digits comes back with `record.valid` false. Any image is accepted (gray,
/// RGB, BGRA; null gives none). Thread: any; the recogniser's tables are built once.
KWQ_EXPORT std::optional<MRZReading> readMRZ(const Image& image);

}  // namespace kwq
