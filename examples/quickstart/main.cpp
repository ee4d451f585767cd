#include <iostream>

#include "DiskUtils/System.h"
#include "FileUtils/FilesManager.h"

int main() {
  auto* const system = Quellon::System::GetInstance();
  auto* const card = system->InitDisk();  // reboots for a card that fails, three times at most
  if (card == nullptr || !card->available) return 1;
  system->SaveSDCardStatusCounter(0);  // a good start ends the count of reboots

  Quellon::FileUtils::FilesManager recordings(card, "/mnt/sdcard/cr/", 16ULL << 20, 0.8F);
  if (!recordings.LoadAndSort()) return 1;
  recordings.Log();              // the catalogue, oldest first
  if (!recordings.MakeRoom()) {  // deletes the oldest until 80 % of what is free exceeds 16 MiB
    std::cerr << recordings.GetErrorPlace() << ": " << recordings.GetError() << std::endl;
    return 1;
  }
  recordings.Log();
  std::cout << system->GetHealthReport() << std::endl;
}
