// The catalogue of a recordings directory, kept within its share of the card.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>

#include "DiskUtils/Disk.h"
#include "FileUtils/File.h"
#include "base/Export.h"
#include "base/IError.h"
#include "base/IThread.h"
#include "base/Mutex.h"
#include "base/ThreadSafety.h"

namespace Quellon::FileUtils {

using DiskUtils::Disk;

/// Lists the files of one directory, oldest first, with the sum of their sizes, and deletes the
/// oldest of them to make room. Files with the extensions ".log" and ".gps" are never deleted by
/// age.
///
/// Use: construct, `LoadAndSort()`, then `AddFile` for each new recording and `MakeRoom` before the
/// next one. One owner thread uses the object; `RemoveAllFilesAsync` adds the object's own thread,
/// which removes all files once and ends. A lock guards the list; it is never held while `MakeRoom`
/// measures or waits. Failures are a false result with the reason kept by `IError`. A failing lock
/// throws std::system_error.
///
/// A directory has one catalogue, and nobody else deletes in it. A file that another catalogue,
/// another program or a person has deleted still counts with its size: `MakeRoom` deletes others in
/// its place, at worst every recording, and returns true. After such a deletion load again before
/// anything else: `LoadAndSort()`. A directory that is a link is followed, wherever on the machine
/// it leads: look before you load what a card of others offers.
class QUELLON_EXPORT FilesManager : public Tarvik::Interfaces::IThread,
                                    public Tarvik::Interfaces::IError {
 public:
  /// A catalogue of `directory`, which must end in "/", that may use `share` of the card and leaves
  /// `minimumFree` bytes of it free; the card's reserve, in the same share, is added to that.
  /// `card` is not owned and must outlive the object; null or unavailable, nothing can be loaded.
  /// Logs both figures if the card is available. Reads no directory.
  ///
  /// `share` is a fraction between 0 and 1: 0.8 is 80 %. It is not tested here, so test what comes
  /// from a configuration. With 0, less than that or no number (NaN) there is never room:
  /// `MakeRoom` deletes every recording. With more than 1, such as 80 meant as per cent, there is
  /// no limit: recordings fill the card but for its reserve.
  FilesManager(Disk* card, std::string directory, unsigned long long minimumFree, float share);

  /// An object that stays without card and directory; the figures are logged as for a catalogue of
  /// the whole card.
  explicit FilesManager(Disk* card);

  /// An object that stays without card and directory; the figures are logged for the arguments.
  FilesManager(Disk* card, unsigned long long minimumFree, float share);

  FilesManager(FilesManager const&) = delete;
  FilesManager& operator=(FilesManager const&) = delete;

  /// Waits until a remove-all pass that is running has ended, then deletes the catalogued objects,
  /// not their files. A derived class with a `Run` of its own calls `Cancel()` and `Join()` in its
  /// own destructor: otherwise `Run` might still use members that are gone. If it does not, the
  /// thread ends after the `Run` that is running, and removes nothing.
  ~FilesManager() override;

  /// Fills the catalogue from the directory, in the directory's order, with a pause of 1 ms per
  /// entry. Everything but directories is taken; links are not followed. Objects of an earlier
  /// load are not destroyed, so that whoever holds one may go on using it.
  /// Errors: "The disk is not available", "Empty path value", "Could not open directory",
  /// "Incorrect path". A failure while the directory is read ends the list there, and is no error.
  /// A name without a dot is reported on standard output and has no extension.
  bool Load();
  /// Loads another directory from now on.
  bool Load(std::string& directory);
  /// Loads and, if that succeeded, sorts.
  bool LoadAndSort();

  /// Catalogues, as the newest, a file that exists in the directory, with the size it has now: call
  /// it once, when a recording is complete. A name that is catalogued already counts twice. What
  /// the file holds may still be in the kernel's memory alone, and is lost then with the card's
  /// power: bring a recording to the card first, by `Ifile::Sync`. Error: "File not found".
  bool AddFile(std::string& fileName);

  /// Sorts by modification time, oldest first; equal times keep their order.
  void Sort();
  /// Whether `a` was modified before `b`.
  static bool CBSort(Ifile* a, Ifile* b);
  /// Reverses the order.
  void ReverseList();
  /// Empties the list. The objects live on, for whoever holds them, and the total stays until it
  /// is recalculated.
  void ClearList();

  /// Bytes of all catalogued files: the running total, or a new sum if asked for or if the total
  /// is 0. Both count what vanished without this object, until it is loaded again. Reading the
  /// running total takes no lock.
  unsigned long long GetTotalFilesSize(bool recalculate);
  /// The running total, as `GetTotalFilesSize(false)`.
  unsigned long long GetTotalFilesSize();

  /// The directory, as it was given.
  std::string GetPath();
  /// The list itself. Use it only while no other thread uses the catalogue: no lock is taken. You
  /// may read it, put it in another order, and add or take out objects; every operation works on
  /// the list as it finds it.
  /// The catalogue deletes the objects in the list, so add only what was made by `new`; whoever
  /// takes one out owns it. A null in the list is skipped, and removed by the next `Sort`.
  /// The running total does not notice what you add or take out, and `MakeRoom`, which compares it
  /// with the share, would delete too much or too little: call `GetTotalFilesSize(true)`
  /// afterwards. The total never falls below zero, even when a file is deleted that was never
  /// counted.
  std::list<Ifile*>& GetList() QUELLON_NO_THREAD_SAFETY_ANALYSIS;
  /// Logs the name of each catalogued file.
  void Log();

  /// Whether there is room: the share of the card's free bytes exceeds the minimum, and the
  /// catalogue uses less than its share of the card. Measures the card first. Without a card,
  /// throws IException "Disk not available" if asked to, else records "Disk not received".
  /// Throws what `Disk::LoadDiskInfo` throws.
  bool CheckAvailableSpace(bool throwIfNoDisk);

  /// Deletes the oldest files, two at a time, until there is room, if need be all of them: see what
  /// is said above of `share`, and of others that delete. Gives up after 100 attempts that deleted
  /// nothing, 10 ms apart. Errors: "Unable to make room, after 100 retries", "Disk not
  /// available", "Get space stat error". Passes on other exceptions, such as std::bad_alloc; the
  /// catalogue then holds what is left.
  bool MakeRoom();

  /// Deletes up to `count` of the oldest files and returns how many it deleted. A file that cannot
  /// be removed leaves the catalogue, unless its removal throws. Holds the lock throughout, also
  /// while objects are destroyed: destructors of your own kinds of file must not use the catalogue.
  unsigned int DeleteOldFiles(unsigned int count);

  /// Deletes the first catalogued file of that name that can be removed; whoever holds its object
  /// may go on using it. False when there is none.
  bool RemoveFileByName(std::string& fileName);

  /// Deletes everything but ".log" and ".gps" files; returns how many.
  unsigned int RemoveAllFiles();

  /// As `RemoveAllFiles`, but on the object's own thread; `Join()` waits for it. Does nothing when
  /// the catalogue is empty or the thread is removing files already. Throws std::system_error when
  /// no thread can be had.
  void RemoveAllFilesAsync();

  /// What the object's own thread does: removes all files once, as `RemoveAllFiles` does, and ends.
  void Run() override;

 private:
  [[nodiscard]] bool HasCard() const;
  bool Fail(char const* message, char const* where);
  void AddReserve();
  void LogShare();
  void Forget();
  void LoadEntry(char const* entryName);
  static std::unique_ptr<Ifile> MakeEntry(std::string filePath, std::string fileName);
  void Append(std::unique_ptr<Ifile> file);
  unsigned int CountFiles();
  void SubtractSize(Ifile const& file);

  // Binary interface: these fields keep their order.
  Disk* disk;
  std::string path;
  float fraction;
  unsigned long long minFreeSpace;
  std::atomic<unsigned long long> totalFilesSize;
  Tarvik::Mutex filesMutex;
  std::list<Ifile*> files QUELLON_GUARDED_BY(filesMutex);
};

}  // namespace Quellon::FileUtils
