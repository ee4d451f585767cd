// The technician's command: what a device with this library is like, and the few things to do to it
// by hand.
#include "Command.h"

int main(int count, char** arguments) {
  return Quellon::Tool::Run({arguments + 1, arguments + count});
}
