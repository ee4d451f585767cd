// Any text is either refused or read as a value that is written and read back the same.
#include "base/Json.h"
#include "base/IException.h"
#include "tests/fuzz/Target.h"

namespace Json = Tarvik::Json;

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  try {
    Json::Value const value = Json::Deserialize(std::string(Fuzz::Text(data, size)));
    std::string const text = Json::Serialize(value);
    Fuzz::Require(Json::Serialize(Json::Deserialize(text)) == text, "what is written reads back");
    Fuzz::Require(text.find('\n') == std::string::npos, "one line");
  } catch (Tarvik::IException const& e) {
    Fuzz::Require(std::string_view(e.what()).find(" at byte ") != std::string_view::npos,
                  "a refusal names the byte");
  }
  return 0;
}
