// One directory.
#pragma once

#include <string>

#include "base/Export.h"
#include "base/IError.h"

namespace Quellon::FileUtils {

/// A directory by its path, which need not exist. Failures are kept by `IError`. One thread at a
/// time.
class QUELLON_EXPORT Idir : public Tarvik::Interfaces::IError {
 public:
  /// Keeps the path and looks whether the directory can be opened.
  explicit Idir(std::string const& directory);
  Idir(Idir const&) = default;
  Idir& operator=(Idir const&) = default;
  ~Idir() override;

  /// True when the directory can be opened now. Changes nothing.
  bool CheckIfExists();

  /// Makes the directory, but not its parents, with mode 0775 less the umask. True when it was
  /// made, or existed when this object was made. False, with "unable to create directory: " and
  /// the path recorded, otherwise, and so also on a second call after it was made.
  bool Create();

  // Binary interface: these fields keep their order.
  std::string path;     ///< as it was given
  bool exists = false;  ///< whether the directory could be opened when this object was made
};

}  // namespace Quellon::FileUtils
