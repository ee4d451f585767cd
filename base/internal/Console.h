// Standard output that nobody may be reading.
#pragma once

#include <string_view>

namespace Tarvik::Console {

/// @{ Standard output as lines go to it. One that blocks is waited for without end. One that does
/// not, and is full, is waited for during a bounded moment; after that lines are dropped and
/// counted without waiting, until it takes something again. It is told that first: "[CONSOLE] 12
/// lines dropped". Any thread may use them; nothing is allocated or thrown, and `errno` may change.

/// Hands a line to the kernel, after what the C library's stream holds, unless another thread has
/// that. Asks nothing else of the kernel until a write fails. One line at a time: the caller has
/// the lock of the console's sink.
void Write(std::string_view line) noexcept;

/// To be called before a text is printed by other means: waits, and tells what was dropped, as
/// above. Asks the kernel in any case, as such a text cannot be had back once it is lost.
void AwaitRoom() noexcept;

/// Counts a text that was printed by other means and not taken; a part of it may be out.
void Drop() noexcept;

/// Takes the count back: in a child made by fork(2), as it is its parent's to tell.
void ForgetDropped() noexcept;
/// @}

}  // namespace Tarvik::Console
