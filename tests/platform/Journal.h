#pragma once

#include <string>
#include <vector>

namespace Garden {

// What the garden's handlers did, in order, for the tests to read.
std::vector<std::string>& journal();

}  // namespace Garden
