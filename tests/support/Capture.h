// What a piece of code writes to standard output or standard error, whoever writes it: std::cout,
// the C library's streams or a child process.
#pragma once

#include <cstdio>
#include <string>

namespace Capture {

/// Collects one descriptor's output into a file of its own from construction to `Text` or the end.
class Descriptor {
 public:
  explicit Descriptor(int number);
  Descriptor(Descriptor const&) = delete;
  Descriptor& operator=(Descriptor const&) = delete;
  ~Descriptor();

  /// Stops collecting and returns what came.
  std::string Text();

 private:
  void Restore();

  int number;
  int saved;
  std::FILE* file;
};

/// What `work` writes to standard output.
template <typename Work>
std::string Output(Work work) {
  Descriptor captured(1);
  work();
  return captured.Text();
}

/// What `work` writes to standard error.
template <typename Work>
std::string ErrorOutput(Work work) {
  Descriptor captured(2);
  work();
  return captured.Text();
}

/// What `work` writes to standard output and then what it writes to standard error.
template <typename Work>
std::string AllOutput(Work work) {
  std::string output;
  std::string const errors = ErrorOutput([&] { output = Output(work); });
  return output + errors;
}

}  // namespace Capture
