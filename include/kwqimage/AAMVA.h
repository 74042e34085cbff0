#pragma once

/// @file
/// Reading the PDF417 text of North-American driving licences and identification cards (the
/// AAMVA DL/ID card design standard, versions 1 to 10): the file header, the subfile directory
/// and the data elements, with the common fields typed (names, dates, sex, address).
///
/// Cards in circulation stray from the standard in a few well-known ways; the parser accepts
/// them and notes each one in `warnings`: CR/LF or CR in place of LF between elements, other
/// separator bytes in the header, "ANSI" without its space or the older "AAMVA" file type,
/// subfile offsets that miss by a few bytes, a subfile whose "DL"/"ID" designator is missing,
/// and dates in the other order (MMDDCCYY where CCYYMMDD is due, or the reverse).

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/Export.h"

namespace kwq {

/// A calendar date as the card states it (no time zone).
struct AAMVADate {
  int32_t year = 0;   ///< four digits
  int32_t month = 0;  ///< 1..12
  int32_t day = 0;    ///< 1..31, valid for the month
  /// Field-wise equality.
  friend bool operator==(const AAMVADate&, const AAMVADate&) = default;
};

/// Sex as coded on the card (element DBC): 1 male, 2 female, 9 not specified.
enum class AAMVASex : uint8_t { Unknown = 0, Male = 1, Female = 2, NotSpecified = 9 };

/// One entry of the subfile directory: its type ("DL", "ID", "ZV", ...) and where it lies.
struct AAMVASubfile {
  /// The two-letter subfile type.
  std::string type;
  ///@{
  /// Offset and length as the directory states them.
  uint32_t offset = 0;
  uint32_t length = 0;
  ///@}
  /// Where the subfile was actually found (the byte after its designator); differs from
  /// `offset` + 2 when the directory is off.
  size_t foundAt = 0;
};

/// Why a text is not an AAMVA record.
enum class AAMVAError : uint8_t {
  None,
  /// Empty input.
  Empty,
  /// No "@" compliance indicator followed by the "ANSI" (or "AAMVA") file type.
  NoHeader,
  /// The IIN, version or number of entries are not digits, or the number of entries is 0.
  BadHeader,
  /// Neither a "DL" nor an "ID" subfile holds any data element.
  NoDataElements,
};

/// A parsed record. Text fields are empty and dates none when the card does not carry them.
struct AAMVARecord {
  /// Issuer identification number: six digits naming the jurisdiction ("636014" California).
  std::string issuerIdentificationNumber;
  /// AAMVA version number (1 for 2000 cards ... 10 for 2020 cards; 0 for pre-standard cards).
  int32_t aamvaVersion = 0;
  /// The jurisdiction's own version (absent from version 1 headers: 0).
  int32_t jurisdictionVersion = 0;
  /// Number of subfile directory entries the header declares.
  int32_t numberOfEntries = 0;
  /// The subfile directory, in the header's order.
  std::vector<AAMVASubfile> subfiles;

  /// The subfile the fields come from: "DL" or "ID".
  std::string documentType;
  /// Every data element of every subfile by its three-character identifier (later subfiles
  /// do not replace earlier ones), values with surrounding spaces removed.
  std::map<std::string, std::string> elements;

  std::string familyName;             ///< DCS (DAB on version 1 cards, else the first part of DAA)
  std::string givenName;              ///< DAC (DCT on version 2 cards, else from DAA)
  std::string middleName;             ///< DAD
  std::string customerId;             ///< DAQ, the licence or card number
  std::string documentDiscriminator;  ///< DCF
  std::string street;                 ///< DAG
  std::string city;                   ///< DAI
  std::string jurisdiction;           ///< DAJ, two letters
  std::string postalCode;             ///< DAK, as printed (trailing zeros of ZIP+4 kept)
  std::string country;                ///< DCG ("USA", "CAN"), empty when absent
  std::string vehicleClass;           ///< DCA
  std::string height;                 ///< DAU, as printed ("070 in", "178 cm")
  std::string eyeColor;               ///< DAY
  AAMVASex sex = AAMVASex::Unknown;   ///< DBC
  std::optional<AAMVADate> dateOfBirth;     ///< DBB
  std::optional<AAMVADate> expirationDate;  ///< DBA
  std::optional<AAMVADate> issueDate;       ///< DBD

  /// Deviations from the standard that were accepted, one plain sentence each.
  std::vector<std::string> warnings;
};

/// A parse's outcome: a record, or an error with a message saying what was wrong and where.
struct AAMVAParseResult {
  /// The record; none on error.
  std::optional<AAMVARecord> record;
  /// What went wrong; None on success.
  AAMVAError error = AAMVAError::None;
  /// What was wrong and where; empty on success.
  std::string message;
  /// True when a record was read.
  bool ok() const { return record.has_value(); }
};

/// Parses the text of an AAMVA PDF417 symbol. Any bytes are accepted: text that is not an
/// AAMVA record gives an error, never a crash; inputs over 64 KiB (far beyond one symbol) are
/// read up to that size. Thread: any.
KWQ_EXPORT AAMVAParseResult parseAAMVA(std::string_view text);

/// "YYYY-MM-DD". Thread: any.
KWQ_EXPORT std::string formatAAMVADate(const AAMVADate& date);

}  // namespace kwq
