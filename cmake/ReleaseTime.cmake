# When these sources were released, in seconds since 1970: no right clock says less. It is the same in
# each build of the same sources. SOURCE_DATE_EPOCH is taken where it is later; some builders set it to
# a day long ago.
set(release "^## \\[[0-9.]+\\] - ([0-9]+)-0?([0-9]+)-0?([0-9]+)$")
file(STRINGS CHANGELOG.md released LIMIT_COUNT 1 REGEX "${release}")
string(REGEX MATCH "${release}" released "${released}")

# A year that begins in March has its leap day at its end.
math(EXPR before_march "(14 - ${CMAKE_MATCH_2}) / 12")
math(EXPR year "${CMAKE_MATCH_1} - ${before_march}")
math(EXPR month "${CMAKE_MATCH_2} + 12 * ${before_march} - 3")
math(EXPR day "${CMAKE_MATCH_3} + (153 * ${month} + 2) / 5 + 365 * ${year} + ${year} / 4 \
               - ${year} / 100 + ${year} / 400 - 719469")
math(EXPR release_time "${day} * 86400")
if(NOT "$ENV{SOURCE_DATE_EPOCH}" MATCHES "^(0|[1-9][0-9]*)?$")
  message(FATAL_ERROR "SOURCE_DATE_EPOCH is no number of seconds: $ENV{SOURCE_DATE_EPOCH}")
endif()
if("$ENV{SOURCE_DATE_EPOCH}" GREATER release_time)
  set(release_time $ENV{SOURCE_DATE_EPOCH})
endif()
