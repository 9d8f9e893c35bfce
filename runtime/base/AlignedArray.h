// A heap byte array that begins at a page: the system copies to and from such memory a little faster. For
// the buffers of files that are read and written (runtime/io), which are large enough for that to count.
#pragma once

#include <memory>
#include <new>

namespace morvane {

// Must be what frees the array, because a plain delete[] does not know the alignment: for the language the
// two are different functions, and mixing them is undefined.
struct AlignedArrayDelete {
  // The page of x86-64 and of most other machines. Where pages are larger the array begins at a part of
  // one, and the gain is all that is lost.
  static constexpr std::align_val_t kAlignment{4096};
  void operator()(char* bytes) const { operator delete[](bytes, kAlignment); }
};
// Owns the array; moving hands it on. It knows no size.
using AlignedArray = std::unique_ptr<char[], AlignedArrayDelete>;

// n bytes, contents undefined; null when there is no memory. Nothing is zeroed, because each byte is
// written before it is read.
inline AlignedArray makeAlignedArray(unsigned n) {
  return AlignedArray(new (AlignedArrayDelete::kAlignment, std::nothrow) char[n]);
}

}  // namespace morvane
