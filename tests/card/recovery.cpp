// What a service does first after a power cut: it takes the card into service, loads its catalogue,
// and makes room.
//
//   recovery BYTES [unchecked | reversed | blind | greedy]
//
// Each step is told, so that somebody can look at the card in between. "checked CODE" tells what
// the check of the card ended with. The line "loaded" follows the catalogue, as "file NAME" each,
// oldest first; after a line of standard input, so many bytes of room are made, "room" follows the
// catalogue as it is then, and after another line the card is unmounted. The exit code is 1 where a
// step failed. With another word it does something wrong, for somebody who must notice: it does not
// check what cannot be mounted, it deletes the newest, it overlooks a file, or it makes more room
// than it was asked for.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

#include "DiskUtils/CheckUnlessMountable.h"
#include "DiskUtils/System.h"
#include "FileUtils/FilesManager.h"
#include "base/Logger.h"
#include "base/UniqueFd.h"
#include "tests/card/PrivateRoot.h"
#include "tests/machine/Machine.h"

namespace {

using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::FilesManager;

// The disks of the whole machine would have to wait for what others write.
void FlushTheCardAlone() {
  Tarvik::UniqueFd const card(open("/mnt/sdcard", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (card.IsOpen()) syncfs(card.Get());
}

void Tell(FilesManager& catalogue, char const* step) {
  for (auto const* file : catalogue.GetList()) std::cout << "file " << file->name << '\n';
  std::cout << step << std::endl;
  std::string ignored;
  std::getline(std::cin, ignored);
}

bool Recover(unsigned long long room, std::string const& mistake) {
  if (mistake != "unchecked") Quellon::DiskUtils::CheckUnlessMountable();
  Disk* const disk = Quellon::System::GetInstance()->InitDisk();
  std::cout << "checked " << Disk::deviceStatusList["/mnt/sdcard/"].fsckStatus << std::endl;
  if (disk == nullptr || !disk->available) return false;
  if (mistake == "greedy") room *= 4;
  // The catalogue asks for more than its minimum, by the card's reserve.
  auto const free =
      static_cast<unsigned long long>(std::max(disk->freeBytes - disk->reserveBytes, 0LL));
  FilesManager catalogue(disk, "/mnt/sdcard/cr/", free + room, 1.0F);
  if (!catalogue.LoadAndSort()) return false;
  if (mistake == "reversed") catalogue.ReverseList();
  if (mistake == "blind") static_cast<void>(catalogue.GetList().pop_back());
  Tell(catalogue, "loaded");
  if (!catalogue.MakeRoom()) return false;
  Tell(catalogue, "room");
  return disk->Umount();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: recovery BYTES [unchecked | reversed | blind | greedy]" << std::endl;
    return 2;
  }
  CardTests::RequirePrivateRoot();
  Machine::hooks().sync = FlushTheCardAlone;
  Tarvik::Ilog::Logger::GetInstance()->consoleSink->enabled = false;
  bool const done = Recover(std::strtoull(argv[1], nullptr, 10), argc > 2 ? argv[2] : "");
  return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
