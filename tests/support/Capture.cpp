#include "tests/support/Capture.h"

#include <unistd.h>

#include <array>
#include <iostream>

namespace Capture {

namespace {

void FlushAll() {
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
}

}  // namespace

Descriptor::Descriptor(int wanted) : number(wanted), saved(-1), file(std::tmpfile()) {
  FlushAll();
  saved = dup(number);
  dup2(fileno(file), number);
}

Descriptor::~Descriptor() {
  Restore();
  std::fclose(file);
}

void Descriptor::Restore() {
  if (saved < 0) return;
  FlushAll();
  dup2(saved, number);
  close(saved);
  saved = -1;
}

std::string Descriptor::Text() {
  Restore();
  std::rewind(file);
  std::string text;
  std::array<char, 4096> piece;
  while (auto const length = std::fread(piece.data(), 1, piece.size(), file)) {
    text.append(piece.data(), length);
  }
  return text;
}

}  // namespace Capture
