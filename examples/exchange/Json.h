// The results as one JSON document (RFC 8259).
#pragma once

#include "Results.h"

#include <ostream>

namespace Exchange {

void printJson(std::ostream& out, const Results& results);

}  // namespace Exchange
