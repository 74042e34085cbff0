// Fuzzes the machine-readable-zone parser with any bytes as its lines. Beyond not crashing or
// reading out of bounds: a result is a record or an error, never both; a valid record has
// every check agreeing, and every correction stands inside the zone and names a field.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kwqimage/MRZ.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const kwq::MRZParseResult r = kwq::parseMRZ(text, kwq::MRZDate{2026, 11, 25});
  if (r.ok() == (r.error != kwq::MRZError::None)) std::abort();
  if (!r.ok()) return 0;
  const kwq::MRZRecord& m = *r.record;
  if (m.format == kwq::MRZFormat::Unknown || m.checks.empty()) std::abort();
  for (const kwq::MRZCheck& c : m.checks)
    if (m.valid && !c.ok) std::abort();
  for (const kwq::MRZCorrection& c : m.corrected) {
    if (c.line < 0 || c.line >= static_cast<int32_t>(m.lines.size()) || c.field.empty())
      std::abort();
    if (c.column < 0 || c.column >= static_cast<int32_t>(m.lines[c.line].size())) std::abort();
    if (m.lines[c.line][c.column] != c.to && c.from == c.to) std::abort();
  }
  for (const auto& d : {m.birthDate, m.expiryDate})
    if (d && (d->month < 1 || d->month > 12 || d->day < 1 || d->day > 31)) std::abort();
  return 0;
}
