// watch_card PARTITION SECONDS: watches the card on which it records.
#include <chrono>
#include <cstdlib>

#include "board/driver/WatchCard.h"

int main(int count, char** arguments) {
  if (count != 3) return 2;
  std::chrono::seconds const time(std::atoi(arguments[2]));
  return WatchCard(arguments[1], time, std::chrono::milliseconds(100)) ? EXIT_SUCCESS
                                                                       : EXIT_FAILURE;
}
