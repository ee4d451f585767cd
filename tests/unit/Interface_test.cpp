// The shape of the public classes, which applications are compiled against: names, types, and what
// they rely on beyond those, the order of fields and of virtual functions.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <type_traits>

#include "DiskUtils/CapacityProof.h"
#include "DiskUtils/CardDirectory.h"
#include "DiskUtils/CardState.h"
#include "DiskUtils/CheckDisk.h"
#include "DiskUtils/Disk.h"
#include "DiskUtils/HealthStatus.h"
#include "DiskUtils/SDCardInfo.h"
#include "DiskUtils/System.h"
#include "FileUtils/Dir.h"
#include "FileUtils/File.h"
#include "FileUtils/FilesManager.h"
#include "RTC/ClockFloor.h"
#include "RTC/Rtc.h"
#include "SysUtil/Util.h"
#include "Testing/main.h"
#include "Watchdog/Watchdog.h"
#include "Watchdog/WatchdogGuard.h"
#include "base/Buffer.h"
#include "base/Date.h"
#include "base/IError.h"
#include "base/IException.h"
#include "base/ISemaphore.h"
#include "base/IThread.h"
#include "base/Json.h"
#include "base/Logger.h"
#include "base/TemperatureMonitor.h"
#include "tests/support/Capture.h"

namespace {

/// The place of a virtual function in its class's table, counted from 0, as the Itanium C++ ABI
/// writes it into a pointer to it. The two destructors take a place each.
template <typename Function>
std::size_t Slot(Function function) {
  static_assert(sizeof(Function) == 2 * sizeof(std::uintptr_t));
  std::array<std::uintptr_t, 2> words;
  std::memcpy(words.data(), &function, sizeof(function));
#if defined(__arm__) || defined(__aarch64__)
  return words[0] / sizeof(void*);
#else
  return (words[0] - 1) / sizeof(void*);
#endif
}

/// True; compiles only for the name of a function that has an overload of exactly the type `Type`.
template <typename Type>
constexpr bool Is(Type) {
  return true;
}

/// Whether fields lie in the order in which they are named.
template <typename... Fields>
bool InOrder(Fields const&... fields) {
  std::array<void const*, sizeof...(fields)> const addresses{&fields...};
  return std::ranges::is_sorted(addresses, std::less<>());
}

/// Whether the first base of an object lies at its beginning.
template <typename Base, typename Derived>
bool IsFirstBase(Derived const& object) {
  return static_cast<void const*>(static_cast<Base const*>(&object)) == &object;
}

/// The only virtual function of a class is its destructor: another class that adds a virtual
/// function gets the place after the two of the destructor.
template <typename Class>
struct WithOneMore : Class {
  using Class::Class;
  virtual void OneMore() {}
};

template <typename Class>
bool OnlyTheDestructorIsVirtual() {
  return Slot(&WithOneMore<Class>::OneMore) == 2;
}

using std::is_constructible_v;
using std::is_convertible_v;
using std::is_same_v;
using std::string;

namespace Ilog = Tarvik::Ilog;
using FileSink = Ilog::LoggerBase<Ilog::FileLogPolicy>;
using ConsoleSink = Ilog::LoggerBase<Ilog::ConsoleLogPolicy>;
using Ilog::Logger;
using Ilog::LogType;

static_assert(std::is_enum_v<LogType> && is_convertible_v<LogType, int>);
static_assert(Ilog::Info == 0 && Ilog::Warning == 1 && Ilog::Error == 2);
static_assert(sizeof(LogType) == 4);

static_assert(is_same_v<decltype(&Logger::GetInstance), Logger* (*)()>);
static_assert(is_same_v<decltype(Logger::fileSink), FileSink*>);
static_assert(is_same_v<decltype(Logger::consoleSink), ConsoleSink*>);
static_assert(is_same_v<decltype(&Logger::Flush), void (Logger::*)()>);
static_assert(Is<Logger& (Logger::*)(char const*)>(&Logger::operator<<));

static_assert(is_same_v<decltype(&FileSink::WriteHeader), void (FileSink::*)(LogType)>);
static_assert(is_same_v<decltype(&ConsoleSink::WriteHeader), void (ConsoleSink::*)(LogType)>);
static_assert(is_same_v<decltype(&FileSink::CheckEndOfStream), void (FileSink::*)()>);
static_assert(Is<FileSink& (FileSink::*)(long const&)>(&FileSink::operator<<));
static_assert(is_convertible_v<decltype(FileSink::enabled), bool>);
static_assert(sizeof(FileSink::enabled) == 1 && sizeof(ConsoleSink::enabled) == 1);
static_assert(!std::is_copy_constructible_v<FileSink>);

using Tarvik::IException;
static_assert(is_convertible_v<IException*, std::exception*>, "a public base");
static_assert(is_same_v<decltype(IException::message), char[1024]>);
static_assert(is_same_v<decltype(IException::code), std::int32_t>);
static_assert(is_same_v<decltype(&IException::what), char const* (IException::*)() const noexcept>);
static_assert(is_constructible_v<IException, char const*, int>);
static_assert(is_constructible_v<IException, string, int>);
static_assert(std::is_nothrow_copy_constructible_v<IException>);
static_assert(std::has_virtual_destructor_v<IException>);

using Tarvik::Interfaces::IError;
static_assert(std::is_default_constructible_v<IError>);
static_assert(is_same_v<decltype(&IError::ResetError), void (IError::*)()>);
static_assert(is_same_v<decltype(&IError::SetError),
                        void (IError::*)(string const&, string const&, bool, bool)>);
static_assert(is_same_v<decltype(&IError::HasError), bool (IError::*)() const>);
static_assert(is_same_v<decltype(&IError::GetError), string (IError::*)() const>);
static_assert(is_same_v<decltype(&IError::GetErrorPlace), string (IError::*)() const>);
static_assert(is_same_v<decltype(&IError::GetModuleName), string (IError::*)() const>);
static_assert(is_same_v<decltype(&IError::GetClassName), string (IError::*)() const>);

using Tarvik::Interfaces::IThread;
static_assert(std::is_abstract_v<IThread> && std::has_virtual_destructor_v<IThread>);
static_assert(is_same_v<decltype(&IThread::Start), void (IThread::*)()>);
static_assert(is_same_v<decltype(&IThread::Cancel), void (IThread::*)()>);
static_assert(is_same_v<decltype(&IThread::Join), void (IThread::*)()>);
static_assert(!std::is_copy_constructible_v<IThread>);

using Tarvik::Interfaces::ISemaphore;
static_assert(std::is_default_constructible_v<ISemaphore>);
static_assert(!std::is_copy_constructible_v<ISemaphore>);
static_assert(is_same_v<decltype(&ISemaphore::Notify), void (ISemaphore::*)() noexcept>);
static_assert(is_same_v<decltype(&ISemaphore::Wait), void (ISemaphore::*)() noexcept>);
static_assert(is_same_v<decltype(&ISemaphore::TryWait), bool (ISemaphore::*)() noexcept>);

using Tarvik::Json::Array;
using Tarvik::Json::Object;
using Tarvik::Json::Value;
static_assert(std::is_default_constructible_v<Object> && std::is_copy_constructible_v<Object>);
static_assert(std::is_default_constructible_v<Array> && std::is_copy_constructible_v<Array>);
static_assert(Is<Value& (Object::*)(char const*)>(&Object::operator[]));
static_assert(Is<Value& (Object::*)(string const&)>(&Object::operator[]));
static_assert(is_same_v<decltype(&Object::HasKey), bool (Object::*)(string const&) const>);
static_assert(Is<Value& (Value::*)(Value const&)>(&Value::operator=));
static_assert(is_same_v<decltype(&Value::ToObject), Object (Value::*)() const>);
static_assert(is_same_v<decltype(&Value::ToArray), Array (Value::*)() const>);
static_assert(is_same_v<decltype(&Value::ToString), string (Value::*)() const>);
static_assert(Is<int (Value::*)() const>(&Value::operator int));
static_assert(Is<double (Value::*)() const>(&Value::operator double));
static_assert(is_convertible_v<bool, Value> && is_convertible_v<int, Value>);
static_assert(is_convertible_v<double, Value> && is_convertible_v<char const*, Value>);
static_assert(is_convertible_v<string, Value> && is_convertible_v<Object, Value>);
static_assert(is_convertible_v<Array, Value>);
static_assert(!is_constructible_v<Value, void*>, "a pointer is no bool");
static_assert(is_same_v<decltype(&Tarvik::Json::Serialize), string (*)(Value const&)>);
static_assert(is_same_v<decltype(&Tarvik::Json::Deserialize), Value (*)(string const&)>);

static_assert(is_same_v<decltype(&Tarvik::Util::NewDate), string (*)(string)>);
static_assert(is_same_v<decltype(static_cast<string (*)(long const&, string)>(&Tarvik::Util::Date)),
                        string (*)(long const&, string)>);

using Tarvik::Util::TemperatureMonitor;
static_assert(is_same_v<decltype(&TemperatureMonitor::GetInstance), TemperatureMonitor* (*)()>);
static_assert(is_convertible_v<decltype(TemperatureMonitor::valid), bool>);
static_assert(sizeof(TemperatureMonitor::valid) == 1);
static_assert(is_convertible_v<decltype(TemperatureMonitor::temperature), std::int32_t>);
static_assert(sizeof(TemperatureMonitor::temperature) == 4);
static_assert(is_convertible_v<TemperatureMonitor*, IThread*>);

static_assert(is_same_v<decltype(Ibuffer::data), char*>);
static_assert(is_same_v<decltype(Iubuffer::data), unsigned char*>);
static_assert(is_same_v<decltype(Ibuffer::length), unsigned int>);
static_assert(is_same_v<decltype(Iubuffer::length), unsigned int>);
static_assert(offsetof(Ibuffer, data) == 0 && offsetof(Iubuffer, data) == 0);
static_assert(offsetof(Ibuffer, length) == sizeof(char*) + 4);
static_assert(offsetof(Iubuffer, length) == sizeof(char*) + 4);

static_assert(decltype(FileSink::enabled)::is_always_lock_free);
static_assert(decltype(TemperatureMonitor::valid)::is_always_lock_free);
static_assert(decltype(TemperatureMonitor::temperature)::is_always_lock_free);

using Quellon::HealthStatus;
static_assert(is_same_v<decltype(HealthStatus::status), Tarvik::Json::Object>);

using Quellon::DiskUtils::CheckDisk;
static_assert(is_constructible_v<CheckDisk, char*, char*>);
static_assert(is_constructible_v<CheckDisk, int, char*, char*>);
static_assert(is_same_v<decltype(&CheckDisk::UnMount), void (CheckDisk::*)()>);
static_assert(is_same_v<decltype(&CheckDisk::Mount), void (CheckDisk::*)()>);
static_assert(is_same_v<decltype(&CheckDisk::DiskCheck), int (CheckDisk::*)()>);
static_assert(is_same_v<decltype(CheckDisk::mountPoint), string>);
static_assert(is_same_v<decltype(CheckDisk::devicePath), string>);

using Quellon::DiskUtils::Disk;
using Quellon::DiskUtils::SDCardInfo;
using Data = SDCardInfo::SDCardInfoData;
static_assert(is_convertible_v<Disk*, CheckDisk*>);
static_assert(is_constructible_v<Disk, string, string, string>);
static_assert(is_same_v<decltype(&Disk::Mount), bool (Disk::*)()>);
static_assert(is_same_v<decltype(&Disk::Umount), bool (Disk::*)()>);
static_assert(is_same_v<decltype(&Disk::CheckDiskPresence), bool (Disk::*)()>);
static_assert(is_same_v<decltype(&Disk::CheckDeviceStatus), bool (Disk::*)()>);
static_assert(is_same_v<decltype(&Disk::LoadDiskInfo), void (Disk::*)()>);
static_assert(is_same_v<decltype(&Disk::ScanDisk), void (Disk::*)()>);
static_assert(is_same_v<decltype(&Disk::Fromat), bool (Disk::*)(bool)>);
static_assert(is_same_v<decltype(&Disk::PrintInfo), void (Disk::*)()>);
static_assert(is_same_v<decltype(&Disk::testSDCardReadOnlySlow), bool (*)(string)>);
static_assert(is_same_v<decltype(&Disk::readSysFSProperty), string (*)(string)>);
static_assert(is_same_v<decltype(&Disk::StringToULong), unsigned long long (*)(string)>);
static_assert(is_same_v<decltype(&Disk::ULongToString), string (*)(unsigned long long)>);
static_assert(is_same_v<decltype(&Disk::getSDCardLifetimeWrites), unsigned long long (*)(string)>);
static_assert(is_same_v<decltype(&Disk::getSDCardReadOnlyFlag), bool (*)(string)>);
static_assert(is_same_v<decltype(&Disk::getSDCardTotalSize), unsigned long long (*)(string)>);
static_assert(is_same_v<decltype(Disk::reserveRatio), float> && sizeof(float) == 4);
static_assert(is_same_v<decltype(Disk::blockDevice), string>);
static_assert(is_same_v<decltype(Disk::available), bool>);
static_assert(is_same_v<decltype(Disk::sdCardInfo), Data>);
static_assert(is_same_v<decltype(Disk::freeBytes), long long> && sizeof(long long) == 8);
static_assert(is_same_v<decltype(Disk::reserveBytes), long long>);
static_assert(is_same_v<decltype(Disk::totalBytes), long long>);
static_assert(is_same_v<decltype(Disk::deviceStatusList), std::map<string, Disk::DeviceStatus>>);

using Status = Disk::DeviceStatus;
static_assert(std::is_standard_layout_v<Status> && std::is_trivial_v<Status>);
static_assert(is_same_v<decltype(Status::cid), char[36]> && offsetof(Status, cid) == 0);
static_assert(is_same_v<decltype(Status::present), bool> && offsetof(Status, present) == 36);
static_assert(is_same_v<decltype(Status::readOnly), bool> && offsetof(Status, readOnly) == 37);
static_assert(is_same_v<decltype(Status::fsckStatus), std::int32_t>);
static_assert(offsetof(Status, fsckStatus) == 40);
static_assert(is_same_v<decltype(Status::malfunction), std::int32_t>);
static_assert(offsetof(Status, malfunction) == 44);
static_assert(is_same_v<decltype(Status::sizeBytes), std::uint64_t>);
static_assert(offsetof(Status, sizeBytes) == 48);
static_assert(is_same_v<decltype(Status::lifetimeWritesKB), std::uint64_t>);
static_assert(offsetof(Status, lifetimeWritesKB) == 56 && sizeof(Status) == 64);

static_assert(is_constructible_v<SDCardInfo, string>);
static_assert(!std::is_polymorphic_v<SDCardInfo> && !std::is_polymorphic_v<Data>);
static_assert(sizeof(SDCardInfo) == sizeof(Data));
static_assert(is_same_v<decltype(Data::cid), string> && is_same_v<decltype(Data::csd), string>);
static_assert(is_same_v<decltype(Data::serial), string>);
static_assert(is_same_v<decltype(Data::oemid), string>);
static_assert(is_same_v<decltype(Data::manfid), string>);
static_assert(is_same_v<decltype(Data::name), string> && is_same_v<decltype(Data::ro), string>);
static_assert(is_same_v<decltype(Data::size), std::uint64_t>);
static_assert(std::is_copy_assignable_v<Data>);

using Quellon::System;
static_assert(std::is_default_constructible_v<System>);
static_assert(!std::is_copy_constructible_v<System>);
static_assert(is_same_v<decltype(&System::GetInstance), System* (*)()>);
static_assert(is_same_v<decltype(&System::InitDisk), Disk* (System::*)()>);
static_assert(is_same_v<decltype(&System::ReadSDCardStatusCounter), int (System::*)()>);
static_assert(is_same_v<decltype(&System::SaveSDCardStatusCounter), bool (System::*)(int)>);
static_assert(is_same_v<decltype(&System::BuildDiskHealthReport), void (System::*)()>);
static_assert(is_same_v<decltype(&System::GetHealthReport), string (System::*)() const>);
static_assert(is_same_v<decltype(&System::UnmountAll), int (System::*)()>);
static_assert(is_same_v<decltype(&System::Reboot), int (System::*)()>);
static_assert(is_same_v<decltype(static_cast<bool (System::*)(long&)>(&System::SetDate)),
                        bool (System::*)(long&)>);
static_assert(is_same_v<decltype(static_cast<bool (System::*)(long&)>(&System::SetRTC)),
                        bool (System::*)(long&)>);
static_assert(is_same_v<decltype(System::healthStatus), HealthStatus>);
static_assert(is_same_v<decltype(System::disk), Disk*>);
static_assert(is_same_v<decltype(System::diskFault), bool>);
static_assert(is_same_v<decltype(&System::instance), System**>, "a static field");

using Quellon::FileUtils::Ifile;
static_assert(std::is_default_constructible_v<Ifile>);
static_assert(!std::is_copy_constructible_v<Ifile> && !std::is_copy_assignable_v<Ifile>);
static_assert(std::is_nothrow_destructible_v<Ifile>);
static_assert(is_constructible_v<Ifile, string&, bool>);
static_assert(is_same_v<decltype(&Ifile::GetName), string (Ifile::*)()>);
static_assert(is_same_v<decltype(&Ifile::FileExists), bool (Ifile::*)()>);
static_assert(is_same_v<decltype(&Ifile::Stat), bool (Ifile::*)()>);
static_assert(is_same_v<decltype(&Ifile::PrintStat), void (Ifile::*)()>);
static_assert(is_same_v<decltype(&Ifile::Open), bool (Ifile::*)(bool)>);
static_assert(is_same_v<decltype(&Ifile::Close), void (Ifile::*)()>);
static_assert(is_same_v<decltype(&Ifile::Sync), bool (Ifile::*)()>);
static_assert(Is<bool (Ifile::*)(char*, unsigned int)>(&Ifile::Write));
static_assert(Is<bool (Ifile::*)(Ibuffer&)>(&Ifile::Write));
static_assert(Is<bool (Ifile::*)(Iubuffer&)>(&Ifile::Write));
static_assert(Is<bool (*)(void*, unsigned int, FILE*)>(&Ifile::Write));
static_assert(is_same_v<decltype(&Ifile::Remove), bool (Ifile::*)()>);
static_assert(Is<bool (Ifile::*)(unsigned long long)>(&Ifile::RemoveIfBiggerThan));
static_assert(Is<void (*)(string&, unsigned long long)>(&Ifile::RemoveIfBiggerThan));
static_assert(is_same_v<decltype(&Ifile::Rename), bool (Ifile::*)(string&)>);
static_assert(is_same_v<decltype(&Ifile::CopyTo), bool (Ifile::*)(string const&)>);
static_assert(is_same_v<decltype(&Ifile::WriteInt), bool (*)(int, FILE*)>);
static_assert(Is<bool (*)(string const&, unsigned int, FILE*)>(&Ifile::WriteString));
static_assert(Is<bool (*)(string const&, FILE*)>(&Ifile::WriteString));
static_assert(
    is_same_v<decltype(&Ifile::ExtractFileNameFromPath), string (Ifile::*)(string const&)>);
static_assert(is_same_v<decltype(&Ifile::ExtractFileExtension), string (Ifile::*)(string const&)>);
static_assert(is_same_v<decltype(Ifile::path), string> && is_same_v<decltype(Ifile::name), string>);
static_assert(is_same_v<decltype(Ifile::extension), string>);
static_assert(is_same_v<decltype(Ifile::size), long long>);
static_assert(is_same_v<decltype(Ifile::time), std::time_t>);
static_assert(is_same_v<decltype(Ifile::stream), std::unique_ptr<std::fstream>>);

using Quellon::FileUtils::Idir;
static_assert(is_convertible_v<Idir*, IError*>);
static_assert(is_constructible_v<Idir, string const&>);
static_assert(is_same_v<decltype(&Idir::CheckIfExists), bool (Idir::*)()>);
static_assert(is_same_v<decltype(&Idir::Create), bool (Idir::*)()>);
static_assert(is_same_v<decltype(Idir::path), string> && is_same_v<decltype(Idir::exists), bool>);

using Quellon::FileUtils::FilesManager;
static_assert(is_convertible_v<FilesManager*, IThread*> &&
              is_convertible_v<FilesManager*, IError*>);
static_assert(is_constructible_v<FilesManager, Disk*, string, unsigned long long, float>);
static_assert(is_constructible_v<FilesManager, Disk*>);
static_assert(is_constructible_v<FilesManager, Disk*, unsigned long long, float>);
static_assert(Is<bool (FilesManager::*)()>(&FilesManager::Load));
static_assert(Is<bool (FilesManager::*)(string&)>(&FilesManager::Load));
static_assert(is_same_v<decltype(&FilesManager::LoadAndSort), bool (FilesManager::*)()>);
static_assert(is_same_v<decltype(&FilesManager::AddFile), bool (FilesManager::*)(string&)>);
static_assert(is_same_v<decltype(&FilesManager::Sort), void (FilesManager::*)()>);
static_assert(is_same_v<decltype(&FilesManager::CBSort), bool (*)(Ifile*, Ifile*)>);
static_assert(is_same_v<decltype(&FilesManager::ReverseList), void (FilesManager::*)()>);
static_assert(is_same_v<decltype(&FilesManager::ClearList), void (FilesManager::*)()>);
static_assert(Is<unsigned long long (FilesManager::*)(bool)>(&FilesManager::GetTotalFilesSize));
static_assert(Is<unsigned long long (FilesManager::*)()>(&FilesManager::GetTotalFilesSize));
static_assert(is_same_v<decltype(&FilesManager::GetPath), string (FilesManager::*)()>);
static_assert(is_same_v<decltype(&FilesManager::GetList), std::list<Ifile*>& (FilesManager::*)()>);
static_assert(is_same_v<decltype(&FilesManager::Log), void (FilesManager::*)()>);
static_assert(
    is_same_v<decltype(&FilesManager::CheckAvailableSpace), bool (FilesManager::*)(bool)>);
static_assert(is_same_v<decltype(&FilesManager::MakeRoom), bool (FilesManager::*)()>);
static_assert(is_same_v<decltype(&FilesManager::DeleteOldFiles),
                        unsigned int (FilesManager::*)(unsigned int)>);
static_assert(
    is_same_v<decltype(&FilesManager::RemoveFileByName), bool (FilesManager::*)(string&)>);
static_assert(is_same_v<decltype(&FilesManager::RemoveAllFiles), unsigned int (FilesManager::*)()>);
static_assert(is_same_v<decltype(&FilesManager::RemoveAllFilesAsync), void (FilesManager::*)()>);
static_assert(is_same_v<decltype(&FilesManager::Run), void (FilesManager::*)()>);

using Quellon::Watchdog;
static_assert(std::is_nothrow_destructible_v<Watchdog>);
static_assert(std::is_default_constructible_v<Watchdog> && is_constructible_v<Watchdog, int>);
static_assert(!std::is_copy_constructible_v<Watchdog>);
static_assert(is_same_v<decltype(&Watchdog::Init), bool (Watchdog::*)()>);
static_assert(is_same_v<decltype(&Watchdog::Reset), bool (Watchdog::*)()>);
static_assert(is_same_v<decltype(&Watchdog::Open), bool (Watchdog::*)()>);
static_assert(is_same_v<decltype(&Watchdog::Close), bool (Watchdog::*)()>);
static_assert(is_same_v<decltype(Watchdog::fd), std::int32_t>);
static_assert(is_same_v<decltype(Watchdog::timeout), std::int32_t>);

using Quellon::DiskUtils::CardDirectory;
using Quellon::DiskUtils::CardState;
static_assert(!std::is_polymorphic_v<CardState> && !std::is_polymorphic_v<CardDirectory>);
static_assert(std::is_nothrow_destructible_v<CardState>);
static_assert(!std::is_copy_constructible_v<CardState>, "it owns descriptors");
static_assert(!std::is_copy_constructible_v<CardDirectory>, "as does this");
static_assert(is_constructible_v<CardState, Quellon::DiskUtils::Disk const&>);
static_assert(is_constructible_v<CardState, string, string, string>);
static_assert(is_same_v<decltype(&CardState::Look), CardState::Report (CardState::*)()>);
static_assert(
    is_same_v<decltype(&CardState::Describe), char const* (*)(CardState::Finding) noexcept>);
static_assert(CardState::Finding::Good < CardState::Finding::Errors);
static_assert(CardState::Finding::Errors < CardState::Finding::ReadOnly);
static_assert(CardState::Finding::ReadOnly < CardState::Finding::Stuck);
static_assert(CardState::Finding::Stuck < CardState::Finding::NotMounted);
static_assert(CardState::Finding::NotMounted < CardState::Finding::Gone);
static_assert(std::is_nothrow_constructible_v<CardDirectory, string const&, string const&>);
static_assert(
    is_same_v<decltype(&CardDirectory::IsOpen), bool (CardDirectory::*)() const noexcept>);
static_assert(is_same_v<decltype(&CardDirectory::Path), string (CardDirectory::*)() const>);

using Quellon::WatchdogGuard;
using WatchdogResult = WatchdogGuard::Result;
static_assert(std::is_nothrow_destructible_v<WatchdogGuard>);
static_assert(!std::is_polymorphic_v<WatchdogGuard>);
static_assert(std::is_default_constructible_v<WatchdogGuard>);
static_assert(!std::is_copy_constructible_v<WatchdogGuard>);
static_assert(!std::is_move_constructible_v<WatchdogGuard>, "a lock stays where it is");
static_assert(is_same_v<decltype(&WatchdogGuard::Open), WatchdogResult (WatchdogGuard::*)(int)>);
static_assert(is_same_v<decltype(&WatchdogGuard::Kick), WatchdogResult (WatchdogGuard::*)()>);
static_assert(is_same_v<decltype(&WatchdogGuard::Disarm), WatchdogResult (WatchdogGuard::*)()>);
static_assert(is_same_v<decltype(&WatchdogGuard::IsOpen), bool (WatchdogGuard::*)() const>);
static_assert(is_same_v<decltype(&WatchdogGuard::GetDriver), string (WatchdogGuard::*)() const>);
static_assert(is_same_v<decltype(&WatchdogGuard::GetOptions), unsigned (WatchdogGuard::*)() const>);
static_assert(is_same_v<decltype(&WatchdogGuard::GetTimeout), int (WatchdogGuard::*)() const>);
static_assert(
    is_same_v<decltype(&WatchdogGuard::IsStoppedByClose), bool (WatchdogGuard::*)() const>);
static_assert(
    is_same_v<decltype(&WatchdogGuard::Describe), char const* (*)(WatchdogResult) noexcept>);

using Quellon::DiskUtils::CapacityProof;
static_assert(!std::is_polymorphic_v<CapacityProof>);
static_assert(is_constructible_v<CapacityProof, string>);
static_assert(is_constructible_v<CapacityProof, string, std::uint64_t>);
static_assert(
    is_same_v<decltype(&CapacityProof::ProveAll),
              CapacityProof::Report (CapacityProof::*)(CapacityProof::Progress const&) const>);
static_assert(
    is_same_v<decltype(&CapacityProof::ProveSamples),
              CapacityProof::Report (CapacityProof::*)(CapacityProof::Progress const&) const>);
static_assert(
    is_same_v<CapacityProof::Progress, std::function<bool(std::uint64_t, std::uint64_t)>>);
static_assert(
    is_same_v<decltype(&CapacityProof::Describe), char const* (*)(CapacityProof::Result) noexcept>);

using Quellon::RTC::Rtc;
static_assert(is_constructible_v<Rtc, string>);
static_assert(is_same_v<decltype(&Rtc::Load), bool (Rtc::*)()>);
static_assert(
    is_same_v<decltype(static_cast<bool (Rtc::*)(long&)>(&Rtc::Set)), bool (Rtc::*)(long&)>);
static_assert(is_same_v<decltype(&Rtc::SetSystemClock), bool (Rtc::*)()>);
static_assert(is_same_v<decltype(&Rtc::Print), int (Rtc::*)()>);
static_assert(is_same_v<decltype(Rtc::devicePath), string>);
static_assert(is_same_v<decltype(Rtc::rtcTime), rtc_time> && sizeof(rtc_time) == 9 * 4);

using Quellon::RTC::ClockFloor;
static_assert(!std::is_polymorphic_v<ClockFloor>);
static_assert(std::is_default_constructible_v<ClockFloor>);
static_assert(is_constructible_v<ClockFloor, string>);
static_assert(is_constructible_v<ClockFloor, string, time_t>);
static_assert(
    is_same_v<decltype(&ClockFloor::Apply), ClockFloor::Outcome (ClockFloor::*)(string const&)>);
static_assert(is_same_v<decltype(&ClockFloor::Save), ClockFloor::Result (ClockFloor::*)()>);
static_assert(is_same_v<decltype(&ClockFloor::SaveHourly), ClockFloor::Result (ClockFloor::*)()>);
static_assert(is_same_v<decltype(&ClockFloor::ReleaseTime), time_t (*)() noexcept>);
static_assert(
    is_same_v<decltype(&ClockFloor::Describe), char const* (*)(ClockFloor::Result) noexcept>);

static_assert(is_same_v<decltype(&Quellon::SysUtil::ClearCache), bool (*)()>);
static_assert(is_same_v<decltype(&Quellon::SysUtil::ExecSystemCmdThroughPipe), string (*)(string)>);
static_assert(is_same_v<decltype(&Quellon::SysUtil::GetProcIdByName), int (*)(string)>);
static_assert(is_same_v<decltype(&Quellon::SysUtil::MountRamdisk), void (*)()>);
static_assert(is_same_v<decltype(&Quellon::SysUtil::DisplayOpenFiles), void (*)()>);

static_assert(is_same_v<decltype(&FilesManagerTest), void (*)()>);
static_assert(is_same_v<decltype(&TestRtc), void (*)()>);

TEST(Interface, TheVirtualFunctionsOfAThreadKeepTheirOrder) {
  struct Hooks : IThread {
    using IThread::Run;
    using IThread::RunAfter;
    using IThread::RunBefore;
    using IThread::Stopping;
  };
  EXPECT_EQ(Slot(&Hooks::RunBefore), 2U);
  EXPECT_EQ(Slot(&Hooks::Run), 3U);
  EXPECT_EQ(Slot(&Hooks::RunAfter), 4U);
  EXPECT_EQ(Slot(&Hooks::Stopping), 5U);
}

TEST(Interface, TheVirtualFunctionsOfAnExceptionKeepTheirOrder) {
  EXPECT_EQ(Slot(&IException::what), 2U);
}

TEST(Interface, PublicFieldsOfTheBaseKeepTheirOrder) {
  IException const exception("");
  EXPECT_TRUE(InOrder(exception.message, exception.code));
  auto const& logger = *Logger::GetInstance();
  EXPECT_TRUE(InOrder(logger.fileSink, logger.consoleSink));
  auto const& monitor = *TemperatureMonitor::GetInstance();
  EXPECT_TRUE(InOrder(monitor.valid, monitor.temperature));
}

TEST(Interface, TheSwitchOfASinkIsItsLastField) {
  FileSink const file;
  auto const* const end = reinterpret_cast<char const*>(&file + 1);
  auto const distance = end - reinterpret_cast<char const*>(&file.enabled);
  EXPECT_GE(distance, 1);
  EXPECT_LE(distance, static_cast<std::ptrdiff_t>(alignof(FileSink)));
}

TEST(Interface, TheOnlyVirtualFunctionIsTheDestructor) {
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<IError>());
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<HealthStatus>());
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<System>());
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<CheckDisk>());
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<Disk>());
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<Ifile>());
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<Idir>());
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<Watchdog>());
  EXPECT_TRUE(OnlyTheDestructorIsVirtual<Rtc>());
}

TEST(Interface, ACatalogueAddsNoVirtualFunctionToThoseOfAThread) {
  EXPECT_EQ(Slot(&FilesManager::Run), 3U);
  EXPECT_EQ(Slot(&WithOneMore<FilesManager>::OneMore), 6U);
}

TEST(Interface, ACatalogueIsAThreadFirstAndAnErrorRecordSecond) {
  FilesManager const catalogue(nullptr);
  EXPECT_TRUE(IsFirstBase<IThread>(catalogue));
  EXPECT_FALSE(IsFirstBase<IError>(catalogue));
}

TEST(Interface, PublicFieldsOfTheCardKeepTheirOrder) {
  Capture::Output([] {
    Disk const d("/mnt/nowhere/", "/dev/nothing", "nothing");
    EXPECT_TRUE(IsFirstBase<CheckDisk>(d));
    EXPECT_TRUE(InOrder(d.mountPoint, d.devicePath, d.reserveRatio, d.blockDevice, d.available,
                        d.sdCardInfo, d.freeBytes, d.reserveBytes, d.totalBytes));
    Data const& i = d.sdCardInfo;
    EXPECT_TRUE(InOrder(i.cid, i.csd, i.serial, i.oemid, i.manfid, i.name, i.ro, i.size));
    System const s;
    EXPECT_TRUE(InOrder(s.healthStatus, s.disk, s.diskFault));
  });
}

TEST(Interface, PublicFieldsOfFilesAndDevicesKeepTheirOrder) {
  Ifile const f;
  EXPECT_TRUE(InOrder(f.path, f.extension, f.name, f.label, f.size, f.time, f.marked, f.stream));
  Idir const d("/");
  EXPECT_TRUE(InOrder(d.path, d.exists));
  Rtc const r("/dev/rtc0");
  EXPECT_TRUE(InOrder(r.devicePath, r.rtcTime));
  Watchdog const w;
  EXPECT_TRUE(InOrder(w.fd, w.timeout));
}

/// What the dynamic section of a library of this program says under `tag`.
ElfW(Xword) DynamicEntry(char const* library, ElfW(Sxword) tag) {
  void* const handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
  link_map* map = nullptr;
  if (handle == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) return 0;
  ElfW(Dyn) const* entry = map->l_ld;
  while (entry->d_tag != DT_NULL && entry->d_tag != tag) ++entry;
  auto const value = entry->d_un.d_val;
  dlclose(handle);
  return value;
}

// Their singletons are never destroyed, and may have threads: unloaded with dlclose(3), a library
// would take the code of a running thread with it, and leave the log file open.
TEST(Interface, TheLibrariesStayLoaded) {
#if QUELLON_TIME64
  constexpr char const* kNames[] = {"libTarvik.so.2t64", "libQuellon.so.2t64"};
#else
  constexpr char const* kNames[] = {"libTarvik.so.2", "libQuellon.so.2"};
#endif
  for (auto const* name : kNames) EXPECT_NE(DynamicEntry(name, DT_FLAGS_1) & DF_1_NODELETE, 0U);
}

}  // namespace
