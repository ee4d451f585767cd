// A sub-command of `quellon`, and what it ends with.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Quellon::Tool {

/// Exit codes.
enum Status {
  Fine = 0,
  Wrong = 1,    ///< something is wrong with the device, or what was asked for has failed
  Usage = 2,    ///< the command line is not understood
  Refused = 3,  ///< it would disturb what runs; nothing was done
  Unknown = 4,  ///< nothing wrong was found, but not everything could be read
};

using Arguments = std::vector<std::string>;

struct Command {
  std::string_view name;
  std::string_view arguments;  ///< as a usage line shows them
  std::string_view summary;    ///< one line
  std::string_view details;    ///< what `--help` adds: lines, each with its end
  Status (*run)(Arguments const& arguments);
};

/// All of them, in the order in which help shows them.
std::span<Command const> Commands();

/// What the program does: `arguments` are those behind its own name.
Status Run(Arguments const& arguments);

/// Tells on standard error that the sub-command of that name is used otherwise.
Status ComplainOfUsage(std::string_view name);

/// Takes an option without a value out of `arguments`. False when it is not there.
bool Take(Arguments& arguments, std::string_view option);

// The sub-commands, each in a source named after it.
Status RunHealth(Arguments const& arguments);
Status RunCard(Arguments const& arguments);
Status RunCatalogue(Arguments const& arguments);
Status RunWatchdog(Arguments const& arguments);
Status RunClock(Arguments const& arguments);
Status RunCounter(Arguments const& arguments);
Status RunLog(Arguments const& arguments);

}  // namespace Quellon::Tool
