// What is done to the card by hand. Each refuses while somebody uses the card; `arguments` are
// those behind the name of the work.
#pragma once

#include "Command.h"

namespace Quellon::Tool {

Status CheckCard(Arguments arguments);
Status ProveCard(Arguments arguments);
Status PrepareCard(Arguments arguments);

}  // namespace Quellon::Tool
