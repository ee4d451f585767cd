// The table of sub-commands, and what is done with a command line.
#include <algorithm>
#include <array>
#include <iostream>

#include "Command.h"
#include "Report.h"

namespace Quellon::Tool {

namespace {

constexpr std::array<Command, 7> kCommands = {{
    {"health", "[--json | --prometheus [FILE]]", "card, recordings, clock, watchdog: all in one",
     "  --json              one line, for programs\n"
     "  --prometheus        metrics for node_exporter\n"
     "  --prometheus FILE   into FILE, which is replaced as a whole\n",
     RunHealth},
    {"card", "[check [--repair] | prove [--samples] [--erase] | prepare [--erase]]",
     "the card: identity, state, space, errors",
     "  check               checks the file system; nothing is changed\n"
     "  check --repair      corrects its errors\n"
     "  prove               fills what is free, and reads it: does the card hold what it says?\n"
     "  prove --samples     the same here and there, which is quicker\n"
     "  prove --erase       also where there are recordings, which a card that lies loses\n"
     "  prepare             a partition and ext4, for a card that holds no recordings\n"
     "  prepare --erase     also where it holds some, which are lost\n",
     RunCard},
    {"catalogue", "[DIRECTORY]", "the recordings: number, size, oldest, newest, order",
     "The directory is /mnt/sdcard/cr unless given. Nothing is deleted.\n", RunCatalogue},
    {"watchdog", "", "who holds it, what it can do, whether it restarted the board",
     "The device itself is not opened: that would arm it.\n", RunWatchdog},
    {"clock", "[--set [TIME]]", "the system clock and the one with the battery",
     "  --set               sets the battery-backed clock from the system clock\n"
     "  --set TIME          sets both; TIME is local, such as '2026-11-22 12:00:00'\n",
     RunClock},
    {"counter", "[--clear]", "the restarts for a failing card",
     "  --clear             gives the device its three restarts back\n", RunCounter},
    {"log", "[-n LINES] [--errors]", "the last lines of the log, and who writes it",
     "  -n LINES            so many, 20 unless given\n"
     "  --errors            errors and warnings alone\n",
     RunLog},
}};

constexpr char const* kOptions =
    "  --help              also behind a command\n"
    "  --version           of the program\n";

constexpr char const* kExitCodes =
    "0 fine, 1 something is wrong, 2 not understood, 3 refused, 4 not everything could be read\n";

Command const* Find(std::string_view name) {
  auto const found = std::ranges::find(kCommands, name, &Command::name);
  return found == kCommands.end() ? nullptr : found;
}

std::string UsageOf(Command const& command) {
  std::string usage = "usage: quellon " + std::string(command.name);
  if (!command.arguments.empty()) usage.append(" ").append(command.arguments);
  return usage + "\n";
}

Status ShowHelp() {
  std::cout << "usage: quellon COMMAND [ARGUMENT...]\n";
  for (Command const& command : kCommands) {
    std::cout << Line("  " + std::string(command.name), std::string(command.summary));
  }
  std::cout << kOptions << "exit codes: " << kExitCodes << std::flush;
  return Fine;
}

Status ShowHelp(Command const& command) {
  std::cout << UsageOf(command) << command.summary << "\n" << command.details << std::flush;
  return Fine;
}

bool IsHelp(std::string_view argument) {
  return argument == "--help" || argument == "-h";
}

}  // namespace

std::span<Command const> Commands() {
  return kCommands;
}

Status ComplainOfUsage(std::string_view name) {
  std::cerr << UsageOf(*Find(name)) << std::flush;
  return Usage;
}

bool Take(Arguments& arguments, std::string_view option) {
  auto const found = std::ranges::find(arguments, option);
  if (found == arguments.end()) return false;
  arguments.erase(found);
  return true;
}

Status Run(Arguments const& arguments) {
  std::string const name = arguments.empty() ? "" : arguments.front();
  if (IsHelp(name)) return ShowHelp();
  if (name == "--version") {
    std::cout << "quellon " << QUELLON_VERSION << std::endl;
    return Fine;
  }
  Command const* const command = Find(name);
  if (command == nullptr) {
    std::cerr << "quellon: " << (name.empty() ? "no command" : "no such command: " + name)
              << "; see quellon --help" << std::endl;
    return Usage;
  }
  Arguments const rest(arguments.begin() + 1, arguments.end());
  if (std::ranges::any_of(rest, IsHelp)) return ShowHelp(*command);
  return command->run(rest);
}

}  // namespace Quellon::Tool
