// The recordings of a directory. Counted here without FilesManager, which pauses at each file.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <vector>

#include "Command.h"
#include "Device.h"
#include "Reading.h"
#include "Report.h"

namespace Quellon::Tool {

namespace {

struct File {
  std::string name;
  std::time_t time;
  double bytes;

  [[nodiscard]] std::string Extension() const {
    std::size_t const dot = name.rfind('.');
    return dot == std::string::npos ? "" : name.substr(dot);
  }
  // As the library's reclamation has it.
  [[nodiscard]] bool IsProtected() const {
    std::string const extension = Extension();
    return extension == ".log" || extension == ".gps";
  }
};

struct Sum {
  std::size_t files = 0;
  double bytes = 0;

  void Add(File const& file) {
    ++files;
    bytes += file.bytes;
  }
};

struct Listing {
  std::vector<File> files;
  std::size_t tooLarge = 0;         ///< for a board of 32 bits
  std::vector<std::string> unread;  ///< with the reason
};

// What is missing was deleted meanwhile.
void AddFile(Listing& listing, std::string const& directory, std::string const& name) {
  struct stat status {};
  if (lstat((directory + name).c_str(), &status) != 0) {
    if (errno == EOVERFLOW) ++listing.tooLarge;
    bool const isUnread = errno != EOVERFLOW && errno != ENOENT;
    if (isUnread) listing.unread.push_back(directory + name + ": " + std::strerror(errno));
  } else if (!S_ISDIR(status.st_mode)) {
    listing.files.push_back({name, status.st_mtime, static_cast<double>(status.st_size)});
  }
}

// Everything but directories, as the library's catalogue has it. Nothing where the time is over.
std::optional<Listing> List(std::string const& directory, std::vector<std::string> const& names,
                            std::chrono::seconds limit) {
  auto const start = std::chrono::steady_clock::now();
  Listing listing;
  for (std::string const& name : names) {
    AddFile(listing, directory, name);
    if (std::chrono::steady_clock::now() - start > limit) return std::nullopt;
  }
  return listing;
}

// Where the times of recordings go back though their names go on: the clock was set back there.
std::vector<std::string> StepsBack(std::vector<File> files) {
  std::ranges::sort(files, {}, &File::name);
  std::vector<std::string> steps;
  for (std::size_t i = 1; i < files.size(); ++i) {
    if (files[i].time < files[i - 1].time) steps.push_back(files[i].name);
  }
  return steps;
}

// `files` are the oldest first.
void AddTimes(Report& report, std::vector<File> const& files) {
  auto const show = [](File const& file) { return ShowTime(file.time) + ", " + file.name; };
  report.Add("oldest_seconds", "oldest", files.front().time, show(files.front()));
  report.Add("newest_seconds", "newest", files.back().time, show(files.back()));
  long long const span = static_cast<long long>(files.back().time) - files.front().time;
  report.Add("span_seconds", "kept", span, ShowDuration(span));
  std::size_t after = 0;
  for (std::size_t i = 1; i < files.size(); ++i) {
    auto const pause = [&files](std::size_t last) {
      return files[last].time - files[last - 1].time;
    };
    if (after == 0 || pause(i) > pause(after)) after = i;
  }
  if (after == 0) return;
  long long const longest = static_cast<long long>(files[after].time) - files[after - 1].time;
  report.Add("pause_seconds", "longest pause", longest,
             ShowDuration(longest) + ", before " + files[after].name);
}

void ComplainOfOrder(Report& report, std::vector<File> const& recordings) {
  auto const early = std::ranges::count_if(
      recordings, [](File const& file) { return file.time < kFirstPlausible; });
  if (early > 0) {
    report.Complain(
        std::to_string(early) + " recordings are dated before 2020: the clock was reset",
        "quellon clock; they are the first to be deleted");
  }
  auto const steps = StepsBack(recordings);
  if (!steps.empty()) {
    std::string const others =
        steps.size() == 1 ? "" : " and at " + std::to_string(steps.size() - 1) + " others";
    report.Complain("the times of recordings go back at " + steps.front() + others,
                    "quellon clock; the oldest by time is deleted first, whatever its name");
  }
}

void AddRecordings(Report& report, std::vector<File> recordings) {
  if (recordings.empty()) return;
  std::ranges::stable_sort(recordings, {}, &File::time);
  AddTimes(report, recordings);
  ComplainOfOrder(report, recordings);
}

void AddSums(Report& report, std::vector<File> const& files, double capacity) {
  constexpr double kTooMuch = 0.5;  // of the card
  Sum all;
  Sum kept;
  std::map<std::string, Sum> extensions;
  for (File const& file : files) {
    all.Add(file);
    if (file.IsProtected()) kept.Add(file);
    extensions[file.Extension()].Add(file);
  }
  auto const show = [capacity](Sum const& sum) {
    return std::to_string(sum.files) + ", " + ShowBytes(sum.bytes) + ", " +
           ShowShare(sum.bytes, capacity) + " of the card";
  };
  report.Add("files", "files", all.files, show(all));
  report.Add("bytes", "bytes", all.bytes, std::to_string(static_cast<long long>(all.bytes)));
  report.Add("protected_bytes", "protected", kept.bytes, show(kept));
  for (auto const& [extension, sum] : extensions) {
    report.Tell(extension.empty() ? "no extension" : ("  *" + extension).c_str(), show(sum));
  }
  report.Summarize(show(all));
  if (kept.bytes > capacity * kTooMuch) {
    report.Complain("protected files fill the card: they are never deleted by age",
                    "copy *.log and *.gps elsewhere and delete them");
  }
}

void ComplainOfListing(Report& report, Listing const& listing) {
  if (listing.tooLarge > 0) {
    report.Complain(std::to_string(listing.tooLarge) + " files are too large to be counted",
                    "copy files of 2 GiB and more elsewhere and delete them");
  }
  for (std::string const& file : listing.unread) report.Miss(file);
  if (listing.files.empty() && listing.unread.empty())
    report.Complain("no recordings", "quellon card; quellon log");
}

}  // namespace

void LookAtCatalogue(Report& report, std::string const& directory, std::chrono::seconds limit) {
  report.Begin("catalogue");
  auto const names = NamesIn(directory);
  auto const space = SpaceOf(directory);
  if (!names || !space) {
    report.Summarize("unknown");
    return report.Miss(directory + ": " + std::strerror(errno));
  }
  auto const listing = List(directory, *names, limit);
  if (!listing) {
    report.Summarize("unknown");
    return report.Miss(directory + ": its files take longer than " + ShowDuration(limit.count()));
  }
  AddSums(report, listing->files, space->total);
  std::vector<File> recordings;
  std::ranges::copy_if(listing->files, std::back_inserter(recordings),
                       [](File const& file) { return !file.IsProtected(); });
  AddRecordings(report, std::move(recordings));
  ComplainOfListing(report, *listing);
}

Status RunCatalogue(Arguments const& arguments) {
  if (arguments.size() > 1) return ComplainOfUsage("catalogue");
  std::string directory = arguments.empty() ? kRecordings : arguments[0];
  if (directory.starts_with('-')) return ComplainOfUsage("catalogue");
  if (!directory.ends_with('/')) directory += '/';
  Report report;
  LookAtCatalogue(report, directory, std::chrono::hours(24));
  return Print(report);
}

}  // namespace Quellon::Tool
