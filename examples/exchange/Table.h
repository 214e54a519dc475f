// The results as tables for a terminal of 100 columns, printed row by row as they come in.
#pragma once

#include "Results.h"

namespace Exchange {

void printPublishedHead();
void printPublished(const PublishedResult& result);

// Says for which groups nothing is published, when the run concerns one of them only.
void printNothingPublished(const Group& group);

void printGroupHead();
void printGroup(const GroupResult& result);

// The keys of each suite, and the closing line.
void printSuites();
void printSummary(const Results& results);

}  // namespace Exchange
