// Figures that are no loop: what many idle ports cost, and what a port keeps on the heap.
#pragma once

namespace bench {

// Each prints its line and returns whether the figure was reached.
bool idlePorts();
bool heapPerPort();

}  // namespace bench
