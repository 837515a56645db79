// Memory for a large file that is read whole, and for what is made of it.
#pragma once

#include <cstddef>

namespace keyview::ctl {

// Lets the heap grow at once, in huge pages where the system has them: the faults of single pages else
// take a third of the time of a large document. Does nothing for a small file, or where it cannot be done.
void prepare_heap(size_t file_size);

}  // namespace keyview::ctl
