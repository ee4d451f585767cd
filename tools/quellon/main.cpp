// The technician's command: what a device with this library is like, and the few things to do to it
// by hand.
#include <csignal>
#include <iostream>

#include "Command.h"

int main(int count, char** arguments) {
  using Quellon::Tool::Status;
  // What is too large for a limit of the shell fails, and is told: the card is to be left in order.
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
  Status const status = Quellon::Tool::Run({arguments + 1, arguments + count});
  if (std::cout.flush()) return status;
  std::cerr << "quellon: standard output could not be written" << std::endl;
  return status == Status::Fine ? Status::Wrong : status;
}
