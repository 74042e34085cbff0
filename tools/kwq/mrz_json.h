#pragma once

// A machine-readable zone as the tool writes it: the record's fields, its check digits and the
// characters the reading corrected.

#include <kwqimage/MRZ.h>

#include "kwq/json.h"

namespace kwq::tool {

/// {"valid", "format", "lines", "document_code", "issuing_state", "surname", "given_names",
///  "document_number", "nationality", "birth_date", "sex", "expiry_date", "optional_data",
///  "checks": {field: bool}, "corrected": [{"line", "column", "from", "to", "field"}],
///  "corners": [[x, y] x 4]}; dates as ISO dates or null.
Json mrzJson(const MRZReading& reading);

}  // namespace kwq::tool
