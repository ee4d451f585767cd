// A main service in its smallest form: what one start of the device does and says. The restart it
// may ask for is only recorded.
#include <iostream>

#include "DiskUtils/System.h"
#include "tests/card/PrivateRoot.h"
#include "tests/machine/Machine.h"

int main() {
  CardTests::RequirePrivateRoot();
  auto* const system = Quellon::System::GetInstance();
  auto const* const disk = system->InitDisk();
  std::cout << "card: "
            << (disk == nullptr   ? "none"
                : disk->available ? "usable"
                                  : "unusable")
            << "\nhealth: " << system->GetHealthReport() << '\n';
  for (auto const& call : Machine::Trace()) std::cout << "asked: " << call << '\n';
  std::cout << "end of this start" << std::endl;
}
