// What is not done while others use the card.
#pragma once

#include <optional>
#include <string>

#include "Command.h"

namespace Quellon::Tool {

/// Tells on standard error that something is not done, why, and what to do first.
Status Refuse(std::string const& reason, std::string const& first);

/// Whether somebody uses the card, or logs as the device's service does. Then it is told on
/// standard error who, what to do first, and `why`; the result is the exit code.
std::optional<Status> RefuseWhileCardIsUsed(char const* why);

/// The same where the card is mounted.
std::optional<Status> RefuseWhileCardIsMounted();

}  // namespace Quellon::Tool
