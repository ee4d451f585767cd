// with_card PROGRAM [ARGUMENT]...: runs a program with a freshly formatted card in the slot and
// exits with its status. The program finds what a device has: the card's nodes and sysfs entries.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "tests/card/Card.h"
#include "tests/card/PrivateRoot.h"

namespace {

int RunToTheEnd(char** arguments) {
  constexpr int kCannotRun = 127;
  pid_t const child = fork();
  if (child == 0) {
    execvp(arguments[0], arguments);
    std::cerr << "with_card: " << arguments[0] << ": " << std::strerror(errno) << std::endl;
    _exit(kCannotRun);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return kCannotRun;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: with_card PROGRAM [ARGUMENT]..." << std::endl;
    return 2;
  }
  CardTests::RequirePrivateRoot();
  CardTests::Card card;
  card.Insert();
  return RunToTheEnd(argv + 1);
}
