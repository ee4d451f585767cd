"""The emulated 32-bit ARM board: parts, images, machine and scenarios."""
