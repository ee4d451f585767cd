// One file on the recording card.
#pragma once

#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>

#include "base/Buffer.h"
#include "base/Export.h"

namespace Quellon::FileUtils {

/// A file by its path, with what a catalogue of recordings needs to know of it, and a stream to
/// read and write it by. Objects share nothing; each is used by one thread at a time.
///
/// Sizes and times come from lstat(2) in the C library's plain form: on a 32-bit board a file of
/// 2 GiB or more cannot be described, and operations that need its size fail.
///
/// Streams follow symbolic links, make files with mode 0666 less the umask, and are not
/// close-on-exec: a command that is run while one is open inherits it.
class QUELLON_EXPORT Ifile {
 public:
  /// Describes no file yet; `path`, `name` and `extension` are the caller's to set. `stream` holds
  /// a stream that is not open.
  Ifile();

  /// Describes the file at `filePath`; name and extension (without its dot) are taken from it. If
  /// `open` is true an existing file is opened for reading and writing; the file itself is neither
  /// made nor emptied. Whether that worked is not told: test `stream->is_open()`. If `open` is
  /// false `stream` is null.
  Ifile(std::string& filePath, bool open);

  Ifile(Ifile const&) = delete;
  Ifile& operator=(Ifile const&) = delete;

  /// Closes the stream; what could not be flushed is lost silently.
  virtual ~Ifile();

  /// The name, without the directories that lead to it.
  std::string GetName();

  /// True when something of that path exists; symbolic links are followed.
  bool FileExists();

  /// Fills `size` and `time` from lstat(2): a symbolic link is described, not followed, but one
  /// that leads nowhere counts as missing. False, with nothing changed, when that fails.
  bool Stat();

  /// Logs path, name, extension, size and time, a line each.
  void PrintStat();

  /// Opens the stream for reading and writing; does nothing if it is open. While `stream` is null
  /// an existing file is opened as it is, whatever `append` says. Otherwise, and if that failed,
  /// the file is made if it is missing; one that exists keeps its contents if `append` is true, and
  /// is emptied if not. Returns true even when the file could not be opened: test
  /// `stream->is_open()`. Throws IException "Empty file path".
  bool Open(bool append);

  /// Flushes and closes the stream, if it is open; a failure shows in its state alone. What was
  /// written is in the kernel's memory then, not on the card: `Sync` brings it there.
  void Close();

  /// Writes to the stream. False when there is nothing to write or no stream; true says nothing
  /// about the stream's state. What was written is lost when the card is pulled or power fails
  /// before `Sync`: the file may be shorter then, empty, or not there.
  bool Write(char* data, unsigned int length);
  /// The valid bytes of a buffer, in the same way.
  bool Write(Ibuffer& buffer);
  /// The valid bytes of a buffer, in the same way.
  bool Write(Iubuffer& buffer);

  /// Brings the file to the card, so that it is whole after a power cut or when the card is pulled:
  /// flushes the stream, then the file and the directory it lies in, each by an fsync(2) of its
  /// own. Waits for the card, from some ms to seconds: call it where a recording is complete, and
  /// now and then in a long one. False when one of them fails, or the stream has failed since it
  /// was opened, also when closing it; the file is not to be counted on then. It does not matter
  /// whether the stream is open, was closed, or is null.
  bool Sync();

  /// Closes the stream and unlinks the file, in 3 attempts 50 ms apart. False, at once, when the
  /// file does not exist, or after about 150 ms when it cannot be unlinked.
  bool Remove();

  /// Removes the file if it has `limit` bytes or more. True when it is smaller or was removed;
  /// false when it cannot be sized or removed.
  bool RemoveIfBiggerThan(unsigned long long limit);

  /// The same for a path; whether it worked is not told.
  static void RemoveIfBiggerThan(std::string& path, unsigned long long limit);

  /// Renames the file and this object; `size` and `time` are kept. False when `newPath` has fewer
  /// than 3 characters, the stream is open, the file does not exist or rename(2) fails.
  bool Rename(std::string& newPath);

  /// Copies the file to `destination`, which is made or emptied. The source's stream is opened if
  /// it is not, which makes a missing file, and left open; copying begins at its read position.
  /// False, with an error line in the log, when the destination has no name, cannot be made, or is
  /// the file itself, be it through a link, which then stays as it is. A source that cannot be
  /// opened is copied as an empty file, and failures while copying are not detected. The copy may
  /// still be in memory alone, as what `Write` writes. Waits for ever for the other end of a pipe,
  /// be it one or the other. Never throws.
  bool CopyTo(std::string const& destination);

  /// Writes the bytes of `value`, as they lie in memory, to a C stream. False when `file` is null,
  /// or in error afterwards.
  static bool WriteInt(int value, FILE* file);
  /// Writes bytes to a C stream, in the same way. False also for bytes at a null `data`.
  static bool Write(void* data, unsigned int length, FILE* file);
  /// `length` bytes from the start of `text`, in the same way. `length` is not tested: at most the
  /// text and its terminating NUL. False also when `text` is empty.
  static bool WriteString(std::string const& text, unsigned int length, FILE* file);
  /// The whole text, in the same way.
  static bool WriteString(std::string const& text, FILE* file);

  /// What follows the last "/" of `anyPath`; empty when there is no "/".
  std::string ExtractFileNameFromPath(std::string const& anyPath);

  /// What follows the last "." of `anyName`; empty when there is no ".".
  std::string ExtractFileExtension(std::string const& anyName);

  // Binary interface: these fields keep their order.
  std::string path;       ///< the whole path
  std::string extension;  ///< without the dot, but with it where a catalogue set it
  std::string name;       ///< what follows the last "/" of the path
  std::string label;      ///< for the application; never read or written here
  long long size = 0;     ///< bytes, from the last successful `Stat`
  std::time_t time = 0;   ///< modification time, seconds since the epoch, from the same
  bool marked = false;    ///< for the application; never read here
  std::unique_ptr<std::fstream> stream;  ///< the file's stream; null if none was asked for yet
};

}  // namespace Quellon::FileUtils
