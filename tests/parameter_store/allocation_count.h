#ifndef MEDIAD_TESTS_ALLOCATION_COUNT_H
#define MEDIAD_TESTS_ALLOCATION_COUNT_H

#include <cstddef>

// How often the calling thread has used operator new.
std::size_t allocationsOfThisThread();

#endif
