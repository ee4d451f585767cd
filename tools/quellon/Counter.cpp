// The restarts that a failing card has caused. Read here without System, which makes the file when
// it is missing.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>

#include "Command.h"
#include "Reading.h"
#include "Report.h"
#include "base/Json.h"

namespace Quellon::Tool {

namespace Json = Tarvik::Json;

namespace {

constexpr char const* kFile = "/root/system.dat";
constexpr char const* kKey = "sdcard-status-conter";
constexpr int kLimit = 3;
constexpr int kUnreadable = -1;

// As System::ReadSDCardStatusCounter understands it.
int CountIn(std::string const& text) {
  if (text.empty()) return 0;
  try {
    Json::Value const value = Json::Deserialize(text);
    if (!value.IsObject()) return 0;
    Json::Object object = value.ToObject();
    return object.HasKey(kKey) ? static_cast<int>(object[kKey]) : 0;
  } catch (std::exception const&) {
    return kUnreadable;
  }
}

// Nothing where it cannot be known.
std::optional<int> ReadCounter() {
  auto const text = ReadFile(kFile);
  if (text) return CountIn(*text);
  return errno == ENOENT ? std::optional(0) : std::nullopt;
}

std::string Meaning(int count) {
  if (count < 0) return "the file holds no count: a failing card no longer restarts the board";
  if (count == 0) return "no card has failed since the last good start";
  if (count < kLimit) return std::to_string(kLimit - count) + " left before the card is given up";
  return "used up: the board goes on without a card";
}

}  // namespace

void LookAtCounter(Report& report) {
  report.Begin("restarts");
  auto const count = ReadCounter();
  if (!count) {
    report.Miss(std::string(kFile) + ": " + std::strerror(errno));
    return report.Summarize("unknown");
  }
  report.Add("counted", "restarts", *count, std::to_string(*count));
  report.Tell("meaning", Meaning(*count));
  report.Summarize(std::to_string(*count) + ", " + Meaning(*count));
  if (*count >= kLimit || *count < 0) {
    report.Complain("the restarts for a failing card are used up",
                    "put in a good card, quellon counter --clear, restart the service");
  } else if (*count > 0) {
    report.Complain("the card failed at the last start", "quellon card");
  }
}

Status RunCounter(Arguments const& given) {
  Arguments arguments = given;
  bool const clears = Take(arguments, "--clear");
  if (!arguments.empty()) return ComplainOfUsage("counter");
  if (clears && unlink(kFile) != 0 && errno != ENOENT) {
    std::cerr << "quellon: " << kFile << ": " << std::strerror(errno) << std::endl;
    return Wrong;
  }
  Report report;
  LookAtCounter(report);
  return Print(report);
}

}  // namespace Quellon::Tool
