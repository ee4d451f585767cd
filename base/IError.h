// The last error of a long-lived object, kept until the next operation that may fail.
#pragma once

#include <string>

#include "base/Export.h"

namespace Tarvik::Interfaces {

/// Base of objects that report failure by a false result and keep the reason for whoever asks.
/// Not locked: read the error on the thread that ran the operation.
class QUELLON_EXPORT IError {
 public:
  IError();
  IError(IError const&) = default;
  IError& operator=(IError const&) = default;
  virtual ~IError();

  /// Forgets the last error; called on entry to an operation that may fail.
  void ResetError();

  /// Records a failure: the human text and the bare name of the member function that failed.
  /// The two flags are accepted for the callers' sake and change nothing. Prints nothing.
  void SetError(std::string const& message, std::string const& where, bool, bool);

  /// Whether the last operation that may fail has failed.
  [[nodiscard]] bool HasError() const;
  /// The text of the last error; empty when there is none.
  [[nodiscard]] std::string GetError() const;
  /// The member function that failed; empty when there is no error.
  [[nodiscard]] std::string GetErrorPlace() const;
  /// The namespace of the object's class, as the class itself states it.
  [[nodiscard]] std::string GetModuleName() const;
  /// The object's class, as the class itself states it.
  [[nodiscard]] std::string GetClassName() const;

 protected:
  std::string moduleName;  ///< set by the derived class's constructor
  std::string className;   ///< set by the derived class's constructor

 private:
  bool failed = false;
  std::string error;
  std::string place;
};

}  // namespace Tarvik::Interfaces
