// A small JSON document model. Values are plain data: copies are independent, and one object is
// used by one thread at a time.
#pragma once

#include <iosfwd>
#include <string>

#include "base/Export.h"
#include "base/JsonArray.h"
#include "base/JsonObject.h"
#include "base/JsonValue.h"

namespace Tarvik::Json {

/// The JSON text of `value` on one line without blanks, keys ascending. Doubles are written in the
/// shortest text that reads back as the same double, non-finite ones as null. Bytes that are not
/// UTF-8 are replaced by U+FFFD, so that the result is always JSON; of members whose keys are equal
/// then the last one stays.
QUELLON_EXPORT std::string Serialize(Value const& value);

/// Writes what `Serialize` makes of `value`, texts with their quotation marks.
QUELLON_EXPORT std::ostream& operator<<(std::ostream& stream, Value const& value);

/// Parses one JSON text (RFC 8259, UTF-8, nested 512 deep at most). Integers that fit an int become
/// integers, every other number a double; of members with the same key the last one stays.
/// Anything else throws IException, which names the byte offset of the first fault.
QUELLON_EXPORT Value Deserialize(std::string const& text);

}  // namespace Tarvik::Json
