// Mounting, commands, devices and restart: what changes the machine.
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <string_view>

#include "tests/machine/Calls.h"

using namespace Machine;

namespace {

/// The call itself, where the profile lets it through.
template <typename Call>
auto Reaching(Call call) {
  return [call] { return profile().isReached ? call() : Refuse(); };
}

int RunCommand(char const* command) {
  static auto* const next = TheReal<decltype(system)>("system");
  bool const reboots = std::string_view(command).find("reboot") != std::string_view::npos;
  return reboots ? 0 : next(command);
}

}  // namespace

extern "C" {

int mount(char const* source, char const* target, char const* type, unsigned long flags,
          void const* data) noexcept {
  auto const text = [](void const* given) {
    return given == nullptr ? "" : static_cast<char const*>(given);
  };
  static auto* const next =
      TheReal<int(char const*, char const*, char const*, unsigned long, void const*)>("mount");
  Record("mount", text(source), target, text(type), flags, text(data));
  return Outcome("mount", hooks().mount,
                 Reaching([=] { return next(source, target, type, flags, data); }), text(source),
                 target, text(type), flags, text(data));
}

int umount(char const* target) noexcept {
  Record("umount", target);
  static auto* const next = TheReal<int(char const*)>("umount");
  return Outcome("umount", hooks().umount, Reaching([=] { return next(target); }), target);
}

int umount2(char const* target, int flags) noexcept {
  Record("umount2", target, flags);
  static auto* const next = TheReal<int(char const*, int)>("umount2");
  return Outcome("umount2", hooks().umount2, Reaching([=] { return next(target, flags); }), target,
                 flags);
}

int reboot(int command) noexcept {
  Record("reboot", command);
  return Outcome("reboot", hooks().reboot, Refuse, command);
}

int system(char const* command) {
  Record("system", command);
  return Outcome("system", hooks().system, Reaching([=] { return RunCommand(command); }), command);
}

FILE* popen(char const* command, char const* mode) {
  Record("popen", command, mode);
  if (auto const failure = FailureOf("popen", command)) {
    return Fail<FILE*>(failure->value, nullptr);
  }
  if (hooks().popen) return hooks().popen(command, mode);
  static auto* const next = TheReal<decltype(popen)>("popen");
  return profile().isReached ? next(command, mode) : Fail<FILE*>(EPERM, nullptr);
}

pid_t fork() noexcept {
  static auto* const next = TheReal<pid_t()>("fork");
  if (auto const failure = FailureOf("fork", "")) return Fail(failure->value);
  return next();
}

pid_t waitpid(pid_t child, int* status, int options) {
  static auto* const next = TheReal<decltype(waitpid)>("waitpid");
  if (auto const failure = FailureOf("waitpid", child)) return Fail(failure->value);
  return next(child, status, options);
}

int socketpair(int family, int type, int protocol, int* ends) noexcept {
  static auto* const next = TheReal<int(int, int, int, int*)>("socketpair");
  if (auto const failure = FailureOf("socketpair", "")) return Fail(failure->value);
  return next(family, type, protocol, ends);
}

void sync() noexcept {
  if (hooks().sync) hooks().sync();
  Record("sync");
  static auto* const next = TheReal<void()>("sync");
  if (profile().isReached) next();
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  static auto* const next = TheReal<int(int, unsigned long, ...)>("ioctl");
  return Outcome(
      "ioctl", hooks().ioctl, [&] { return next(fd, request, argument); }, request, argument);
}

}  // extern "C"
