// What a refused operation says.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "base/IException.h"

/// The exception of the library's own type that `work` throws, if it throws one.
template <typename Work>
std::optional<Tarvik::IException> Thrown(Work work) {
  try {
    work();
  } catch (Tarvik::IException const& e) {
    return e;
  }
  return std::nullopt;
}

/// What the exception says that `ask` throws, which has no code; empty when it throws none.
template <typename Ask>
std::string Refusal(Ask ask) {
  auto const e = Thrown(ask);
  if (!e) return "";
  EXPECT_EQ(e->code, 0);
  return e->what();
}
