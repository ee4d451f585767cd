#include "Refusal.h"

#include <iostream>
#include <string>

#include "CardFacts.h"
#include "Report.h"
#include "Users.h"

namespace Quellon::Tool {

Status Refuse(std::string const& reason, std::string const& first) {
  std::cerr << Line("refused", reason) << Line("to do", first) << std::flush;
  return Refused;
}

std::optional<Status> RefuseWhileCardIsUsed(char const* why) {
  Users const users = UsersOf(PlacesOfTheCard());
  if (!users.found.empty())
    return Refuse("in use by " + Show(users) + ": " + why, HowToStop(users));
  if (!users.isComplete) return Refuse("who uses the card is not known", "run it as root");
  return std::nullopt;
}

std::optional<Status> RefuseWhileCardIsMounted() {
  if (!MountedCard()) return std::nullopt;
  return Refuse("the card is mounted", "umount /mnt/sdcard");
}

}  // namespace Quellon::Tool
