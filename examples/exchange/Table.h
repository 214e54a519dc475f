// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The results as tables for a terminal of 100 columns. Each row is printed as soon as its results are known.
#pragma once

#include "Results.h"

namespace Exchange {

void printPublishedHead();
void printPublished(const PublishedResult& result);

// Says that nothing is published for a group, if the run is for that group only.
void printNothingPublished(const Group& group);

void printGroupHead();
void printGroup(const GroupResult& result);

// The keys of each suite, and the closing line.
void printSuites();
void printSummary(const Results& results);

}  // namespace Exchange
