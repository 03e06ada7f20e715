// What the exported calls accept as bytes of the caller's.
#ifndef TARN_SRC_BORROWED_BYTES_H_
#define TARN_SRC_BORROWED_BYTES_H_

// A negative length counts as 0.
inline int usable_length(int len) { return len > 0 ? len : 0; }

// A null pointer is as good as any with no bytes to read.
inline bool is_missing(const char* data, int len) { return data == nullptr && len > 0; }

#endif  // TARN_SRC_BORROWED_BYTES_H_
