#pragma once
#include "contender.h"

#include <vector>

// Watches `fds` for input and has each that is ready passed on, until pass() says that it is
// enough.
using Watch = void (*)(const std::vector<int>& fds);

// Takes one byte from `fd` and gives it to the next descriptor. False: the loop is to end.
bool pass(int fd);
