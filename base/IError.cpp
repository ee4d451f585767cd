#include "base/IError.h"

namespace Tarvik::Interfaces {

IError::IError() = default;
IError::~IError() = default;

void IError::ResetError() {
  failed = false;
  error.clear();
  place.clear();
}

void IError::SetError(std::string const& message, std::string const& where, bool /*unused*/,
                      bool /*unused*/) {
  failed = true;
  error = message;
  place = where;
}

bool IError::HasError() const {
  return failed;
}
std::string IError::GetError() const {
  return error;
}
std::string IError::GetErrorPlace() const {
  return place;
}
std::string IError::GetModuleName() const {
  return moduleName;
}
std::string IError::GetClassName() const {
  return className;
}

}  // namespace Tarvik::Interfaces
