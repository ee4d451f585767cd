// Plain buffers that applications pass to file objects. They own nothing.
#pragma once

/// Characters with a count of the valid ones.
struct Ibuffer {
  char* data;             ///< the bytes, owned by the caller
  unsigned int capacity;  ///< how many bytes `data` can hold
  unsigned int length;    ///< how many bytes of `data` are valid
};

/// Bytes with a count of the valid ones.
struct Iubuffer {
  unsigned char* data;    ///< the bytes, owned by the caller
  unsigned int capacity;  ///< how many bytes `data` can hold
  unsigned int length;    ///< how many bytes of `data` are valid
};
