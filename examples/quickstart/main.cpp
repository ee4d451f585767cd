#include <iostream>

#include "DiskUtils/System.h"
#include "FileUtils/Dir.h"
#include "FileUtils/FilesManager.h"

int main() {
  auto const failed = [](std::string const& why) {
    std::cerr << why << std::endl;
    return 1;
  };
  auto* const system = Quellon::System::GetInstance();
  auto* const card = system->InitDisk();  // reboots for a card that fails, three times at most
  if (card == nullptr || !card->available) return failed("no usable card");
  system->SaveSDCardStatusCounter(0);  // a good start ends the count of reboots

  Quellon::FileUtils::Idir directory("/mnt/sdcard/cr/");
  if (!directory.Create()) return failed(directory.GetError());

  constexpr float kShare = 0.8F;  // of the card, as a fraction: 80 % is 0.8, never 80
  static_assert(kShare > 0 && kShare <= 1);
  Quellon::FileUtils::FilesManager recordings(card, directory.path, 16ULL << 20, kShare);
  if (!recordings.LoadAndSort()) return failed(recordings.GetError());
  recordings.Log();  // the catalogue, oldest first
  // Deletes the oldest until 80 % of what is free exceeds 16 MiB.
  if (!recordings.MakeRoom()) return failed(recordings.GetError());
  recordings.Log();
  // Now record: Ifile::Sync() brings a recording to the card, AddFile() into the catalogue.
  std::cout << system->GetHealthReport() << std::endl;
}
