// A heap byte array that begins at a page: the system copies to and from such memory a little faster.
#pragma once

#include <memory>
#include <new>

namespace morvane {

// Must be what frees it, for a plain delete[] does not know the alignment.
struct AlignedArrayDelete {
  static constexpr std::align_val_t kAlignment{4096};
  void operator()(char* bytes) const { operator delete[](bytes, kAlignment); }
};
// Owns the array; moving hands it on.
using AlignedArray = std::unique_ptr<char[], AlignedArrayDelete>;

// n bytes, contents undefined; null when there is no memory. It is freed by its owner alone, since a plain
// delete[] would not know the alignment.
inline AlignedArray makeAlignedArray(unsigned n) {
  return AlignedArray(new (AlignedArrayDelete::kAlignment, std::nothrow) char[n]);
}

}  // namespace morvane
