// What a refused operation says.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "base/IException.h"

/// What the exception says that `ask` throws, which has no code; empty when it throws none.
template <typename Ask>
std::string Refusal(Ask ask) {
  try {
    ask();
  } catch (Tarvik::IException const& e) {
    EXPECT_EQ(e.code, 0);
    return e.what();
  }
  return "";
}
