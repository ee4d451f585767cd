// An application whose global locale writes numbers as people of some countries do.
#pragma once

#include <locale>
#include <string>

#include "tests/support/Scoped.h"

/// While one exists, the global locale has a decimal comma and groups digits by points.
class GroupedNumbers {
  class Facet : public std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };

  Scoped::AtEnd const locale = Scoped::GlobalLocale(std::locale(std::locale::classic(), new Facet));
};
