// Marks what the libraries export; everything else is hidden.
#pragma once

#define QUELLON_EXPORT __attribute__((visibility("default")))
