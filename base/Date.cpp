#include "base/Date.h"

#include <ctime>
#include <iomanip>
#include <sstream>

namespace Tarvik::Util {

std::string NewDate(std::string format) {
  return Date(time(nullptr), std::move(format));
}

std::string Date(long const& t, std::string format) {
  time_t const seconds = t;
  tm calendar{};
  if (localtime_r(&seconds, &calendar) == nullptr) return std::to_string(t);
  std::ostringstream text;
  text << std::put_time(&calendar, format.c_str());
  return text.str();
}

}  // namespace Tarvik::Util
