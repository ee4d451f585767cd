// The shape of the base library's public classes, which applications are compiled against.
#include <gtest/gtest.h>

#include <atomic>
#include <concepts>
#include <cstdint>
#include <exception>
#include <string>
#include <type_traits>

#include "base/Buffer.h"
#include "base/Date.h"
#include "base/IError.h"
#include "base/IException.h"
#include "base/ISemaphore.h"
#include "base/IThread.h"
#include "base/Json.h"
#include "base/Logger.h"
#include "base/TemperatureMonitor.h"
#include "tests/support/Shape.h"

namespace {

using Shape::Is;
using std::is_base_of_v;
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
static_assert(is_base_of_v<std::exception, IException>);
static_assert(is_convertible_v<IException*, std::exception*>, "a public base");
static_assert(is_same_v<decltype(IException::message), char[1024]>);
static_assert(is_same_v<decltype(IException::code), std::int32_t>);
static_assert(is_same_v<decltype(&IException::what), char const* (IException::*)() const noexcept>);
static_assert(is_constructible_v<IException, char const*, int>);
static_assert(is_constructible_v<IException, string, int>);
static_assert(std::is_nothrow_copy_constructible_v<IException>);
static_assert(std::has_virtual_destructor_v<IException>);

using Tarvik::Interfaces::IError;
static_assert(std::is_polymorphic_v<IError> && std::has_virtual_destructor_v<IError>);
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
static_assert(is_same_v<decltype(&Tarvik::Util::Date), string (*)(long const&, string)>);

using Tarvik::Util::TemperatureMonitor;
static_assert(is_same_v<decltype(&TemperatureMonitor::GetInstance), TemperatureMonitor* (*)()>);
static_assert(is_convertible_v<decltype(TemperatureMonitor::valid), bool>);
static_assert(sizeof(TemperatureMonitor::valid) == 1);
static_assert(is_convertible_v<decltype(TemperatureMonitor::temperature), std::int32_t>);
static_assert(sizeof(TemperatureMonitor::temperature) == 4);
static_assert(is_base_of_v<IThread, TemperatureMonitor>);

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

TEST(InterfaceBase, TheVirtualFunctionsOfAThreadKeepTheirOrder) {
  struct Hooks : IThread {
    using IThread::Run;
    using IThread::RunAfter;
    using IThread::RunBefore;
    using IThread::Stopping;
  };
  EXPECT_EQ(Shape::Slot(&Hooks::RunBefore), 2U);
  EXPECT_EQ(Shape::Slot(&Hooks::Run), 3U);
  EXPECT_EQ(Shape::Slot(&Hooks::RunAfter), 4U);
  EXPECT_EQ(Shape::Slot(&Hooks::Stopping), 5U);
}

TEST(InterfaceBase, TheVirtualFunctionsOfAnExceptionKeepTheirOrder) {
  EXPECT_EQ(Shape::Slot(&IException::what), 2U);
}

TEST(InterfaceBase, TheOnlyVirtualFunctionOfAnErrorRecordIsItsDestructor) {
  EXPECT_TRUE(Shape::OnlyTheDestructorIsVirtual<IError>());
}

TEST(InterfaceBase, PublicFieldsKeepTheirOrder) {
  IException const exception("");
  EXPECT_TRUE(Shape::InOrder(exception.message, exception.code));
  auto const& logger = *Logger::GetInstance();
  EXPECT_TRUE(Shape::InOrder(logger.fileSink, logger.consoleSink));
  auto const& monitor = *TemperatureMonitor::GetInstance();
  EXPECT_TRUE(Shape::InOrder(monitor.valid, monitor.temperature));
}

TEST(InterfaceBase, TheSwitchOfASinkIsItsLastField) {
  FileSink const file;
  auto const* const end = reinterpret_cast<char const*>(&file + 1);
  auto const distance = end - reinterpret_cast<char const*>(&file.enabled);
  EXPECT_GE(distance, 1);
  EXPECT_LE(distance, static_cast<std::ptrdiff_t>(alignof(FileSink)));
}

}  // namespace
