// The error that an object has recorded.
#pragma once

#include <string>

#include "base/IError.h"

/// "TEXT in PLACE", or nothing without an error.
inline std::string ErrorOf(Tarvik::Interfaces::IError const& object) {
  return object.HasError() ? object.GetError() + " in " + object.GetErrorPlace() : "";
}
