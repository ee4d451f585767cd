#include "FileUtils/File.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <filesystem>
#include <system_error>

#include "base/Date.h"
#include "base/IException.h"
#include "base/Logger.h"
#include "base/internal/BringToStorage.h"
#include "base/internal/Retry.h"
#include "base/internal/StandardDescriptors.h"

namespace Quellon::FileUtils {

using Tarvik::BringToStorage;
using Tarvik::IException;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;

namespace {

constexpr auto kReadWrite = std::ios::in | std::ios::out;
constexpr int kRemovalAttempts = 3;
constexpr std::chrono::milliseconds kRemovalPause(50);

std::unique_ptr<std::fstream> OpenInPlace(std::string const& path) {
  Tarvik::OccupyStandardDescriptors();
  return std::make_unique<std::fstream>(path, kReadWrite);
}

// Follows links. The standard library's own calls have sizes of 64 bits, so a recording of 2 GiB
// is found on a 32-bit board, too, where this library's stat(2) fails.
bool AreOneFile(std::string const& path, std::string const& other) {
  std::error_code missing;
  return std::filesystem::equivalent(path, other, missing);
}

}  // namespace

// NOLINTNEXTLINE(modernize-use-equals-default): a stream is more than a default
Ifile::Ifile() : stream(std::make_unique<std::fstream>()) {}

Ifile::Ifile(std::string& filePath, bool open)
    : path(filePath), name(ExtractFileNameFromPath(filePath)) {
  extension = ExtractFileExtension(name);
  if (open) stream = OpenInPlace(path);
}

// The stream closes itself, and throws nothing then.
Ifile::~Ifile() = default;

std::string Ifile::GetName() {
  return name;
}

bool Ifile::FileExists() {
  return access(path.c_str(), F_OK) == 0;
}

bool Ifile::Stat() {
  struct stat status {};
  if (!FileExists() || lstat(path.c_str(), &status) != 0) return false;
  size = status.st_size;
  time = status.st_mtime;
  return true;
}

void Ifile::PrintStat() {
  LogLine(Info) << "Path: " << path;
  LogLine(Info) << "File: " << name;
  LogLine(Info) << "Ext: " << extension;
  LogLine(Info) << "Size: " << static_cast<unsigned long long>(size);
  LogLine(Info) << "Time: " << Tarvik::Util::Date(time, "%Y-%m-%d %H:%M:%S");
}

bool Ifile::Open(bool append) {
  if (path.empty()) throw IException("Empty file path");
  if (stream == nullptr) stream = OpenInPlace(path);
  if (stream->is_open()) return true;
  Tarvik::OccupyStandardDescriptors();
  stream->open(path, kReadWrite | std::ios::binary | (append ? std::ios::app : std::ios::trunc));
  return true;  // also when it failed; the stream's own state tells
}

void Ifile::Close() {
  if (stream == nullptr || !stream->is_open()) return;
  stream->flush();
  stream->close();
}

bool Ifile::Write(char* data, unsigned int length) {
  if (data == nullptr || length == 0 || stream == nullptr) return false;
  stream->write(data, static_cast<std::streamsize>(length));
  return true;
}

bool Ifile::Write(Ibuffer& buffer) {
  return Write(buffer.data, buffer.length);
}

bool Ifile::Write(Iubuffer& buffer) {
  return Write(reinterpret_cast<char*>(buffer.data), buffer.length);
}

bool Ifile::Sync() {
  if (stream != nullptr && !stream->flush()) return false;
  std::string const directory = path.substr(0, path.rfind('/') + 1) + ".";
  return BringToStorage(path.c_str()) && BringToStorage(directory.c_str());
}

bool Ifile::Remove() {
  if (!FileExists()) return false;
  Close();
  return Tarvik::Retry(kRemovalAttempts, kRemovalPause,
                       [this] { return unlink(path.c_str()) == 0; }) != 0;
}

bool Ifile::RemoveIfBiggerThan(unsigned long long limit) {
  if (!Stat()) return false;
  // A size equal to the limit already counts as too big.
  if (static_cast<unsigned long long>(size) < limit) return true;
  return Remove();
}

void Ifile::RemoveIfBiggerThan(std::string& path, unsigned long long limit) {
  Ifile(path, false).RemoveIfBiggerThan(limit);
}

bool Ifile::Rename(std::string& newPath) {
  constexpr std::size_t kShortestPath = 3;
  if (newPath.length() < kShortestPath) return false;
  if (stream != nullptr && stream->is_open()) return false;
  if (!FileExists() || rename(path.c_str(), newPath.c_str()) != 0) return false;
  path = newPath;  // first: the new path may be one of the fields below
  name = ExtractFileNameFromPath(path);
  extension = ExtractFileExtension(name);
  return true;
}

bool Ifile::CopyTo(std::string const& destination) {
  try {
    if (destination.empty()) throw IException("Empty destination path");
    if (!Open(true)) throw IException("Source file not open");  // never: Open returns true
    // Opening the destination would empty the recording itself.
    if (AreOneFile(path, destination)) throw IException("destination file not open");
    Tarvik::OccupyStandardDescriptors();
    std::ofstream copy(destination, std::ios::binary);
    if (!copy.is_open()) throw IException("destination file not open");
    LogLine(Info) << "Copy file " << path << " to " << destination;
    copy << stream->rdbuf();
    return true;
  } catch (std::exception const& e) {
    Tarvik::Ilog::LogFailure("Ifile", e.what());
    return false;
  }
}

bool Ifile::WriteInt(int value, FILE* file) {
  return Write(&value, sizeof value, file);
}

bool Ifile::Write(void* data, unsigned int length, FILE* file) {
  if (file == nullptr || (data == nullptr && length != 0)) return false;
  if (length != 0) static_cast<void>(std::fwrite(data, 1, length, file));
  return std::ferror(file) == 0;
}

bool Ifile::WriteString(std::string const& text, unsigned int length, FILE* file) {
  if (file == nullptr || text.empty()) return false;
  static_cast<void>(std::fwrite(text.data(), 1, length, file));
  return std::ferror(file) == 0;
}

bool Ifile::WriteString(std::string const& text, FILE* file) {
  return WriteString(text, static_cast<unsigned int>(text.length()), file);
}

std::string Ifile::ExtractFileNameFromPath(std::string const& anyPath) {
  std::size_t const slash = anyPath.rfind('/');
  return slash == std::string::npos ? std::string() : anyPath.substr(slash + 1);
}

std::string Ifile::ExtractFileExtension(std::string const& anyName) {
  std::size_t const dot = anyName.rfind('.');
  return dot == std::string::npos ? std::string() : anyName.substr(dot + 1);
}

}  // namespace Quellon::FileUtils
