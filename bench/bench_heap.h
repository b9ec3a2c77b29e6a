// Heap allocations made through operator new since the start of the
// benchmark program (counted in main.cpp).
#pragma once

#include <cstdint>

uint64_t HeapAllocations();
