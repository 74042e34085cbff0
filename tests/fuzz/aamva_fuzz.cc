// Fuzzes the AAMVA parser with any bytes as the symbol's text. Beyond not crashing or reading
// out of bounds: a result is a record or an error, never both, and every subfile that was
// found lies inside the text.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kwqimage/AAMVA.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const kwq::AAMVAParseResult r = kwq::parseAAMVA(text);
  if (r.ok() == (r.error != kwq::AAMVAError::None)) std::abort();
  if (r.ok()) {
    for (const kwq::AAMVASubfile& s : r.record->subfiles)
      if (s.foundAt != std::string_view::npos && s.foundAt > size) std::abort();
    for (const auto& d : {r.record->dateOfBirth, r.record->expirationDate, r.record->issueDate})
      if (d && (d->month < 1 || d->month > 12 || d->day < 1 || d->day > 31)) std::abort();
  }
  return 0;
}
