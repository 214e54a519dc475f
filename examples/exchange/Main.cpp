// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// exchange-demo: two agents in two processes set up IKE keys with the library. Start reading in Agent.cpp, which shows
// what an IKE agent does with the library. The other files are about the socket, the tables and the checks.
#include "Exchange.h"
#include "Failure.h"
#include "Json.h"
#include "Options.h"
#include "PeerProcess.h"
#include "Published.h"
#include "Table.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Exchange {
namespace {

void fail(Results& results, const std::string& what) {
  std::cerr << "exchange-demo: " << what << std::endl;
  results.failures.push_back(what);
}

std::string describe(const Group& group) {
  return "group " + std::to_string(group.number) + " (" + group.name + ")";
}

bool isWanted(const Options& options, const Group& group) {
  return options.group == nullptr || options.group == &group;
}

void damagePublished(const Options& options, std::vector<PublishedSide>& sides) {
  for (PublishedSide& side : sides) {
    if (isWanted(options, *side.group)) {
      side.secret.back() ^= 1U;
      return;
    }
  }
  throw Failure("--break published: nothing is published for this group");
}

void runPublished(const Options& options, Results& results) {
  if (!options.json) {
    printPublishedHead();
  }
  results.publishedSides = readPublished(options.vectors);
  if (options.fault == Fault::Published) {
    damagePublished(options, results.publishedSides);
  }
  for (const PublishedSide& side : results.publishedSides) {
    if (!isWanted(options, *side.group)) {
      continue;
    }
    results.published.push_back(reproduce(side));
    const PublishedResult& result = results.published.back();
    if (!options.json) {
      printPublished(result);
    }
    if (!result.agrees()) {
      fail(results, side.source + ", " + side.side + ": " + result.problem);
    }
  }
  if (results.published.empty() && options.group != nullptr && !options.json) {
    printNothingPublished(*options.group);
  }
}

void runGroup(Link& link, const Group& group, const Options& options, Results& results) {
  GroupResult result = {&group, {}};
  for (const Suite& suite : suites) {
    const bool first = results.groups.empty() && result.exchanges.empty();
    const std::string where = describe(group) + " with " + suite.prfName + ": ";
    try {
      result.exchanges.push_back(initiate(link, group, suite, first ? options.fault : Fault::None));
    } catch (const LinkFailure& failure) {
      throw LinkFailure(where + failure.what());
    }
    if (!result.exchanges.back().agrees()) {
      fail(results, where + result.exchanges.back().problem);
    }
  }
  if (!options.json) {
    printGroup(result);
  }
  results.groups.push_back(std::move(result));
}

void runGroups(const Options& options, Results& results) {
  if (!options.json) {
    printGroupHead();
  }
  std::optional<Descriptor> listener(listenOnLoopback());
  const PeerProcess peer(options, *listener);
  Link link = Link::connectTo(*listener, options.timeout);
  listener.reset();
  for (const Group& group : groups) {
    if (isWanted(options, group)) {
      runGroup(link, group, options, results);
    }
  }
}

int runInitiator(const Options& options) {
  const auto start = std::chrono::steady_clock::now();
  Results results;
  results.exchangesPlanned = suites.size() * (options.group == nullptr ? groups.size() : 1);
  try {
    runPublished(options, results);
    runGroups(options, results);
  } catch (const std::exception& error) {
    fail(results, error.what());
  }
  results.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (options.json) {
    printJson(std::cout, results);
  } else {
    printSuites();
    printSummary(results);
  }
  if (!std::cout.good() || std::ferror(stdout) != 0) {
    throw Failure("the results cannot be written to standard output");
  }
  return results.failures.empty() ? 0 : 1;
}

int runResponder(const Options& options) {
  Link link = Link::acceptFrom(Descriptor(STDIN_FILENO), options.timeout);
  respond(link, options.fault);
  return 0;
}

int run(const std::vector<std::string>& arguments) {
  const Options options = readOptions(arguments);
  if (options.help) {
    std::cout << helpText;
    return 0;
  }
  require(Ipsec::initKeyGenLib() == 1, "initKeyGenLib");
  const int code = options.responder ? runResponder(options) : runInitiator(options);
  Ipsec::cleanupKeyGenLib();
  return code;
}

}  // namespace
}  // namespace Exchange

int main(int argc, char** argv) {
  try {
    return Exchange::run({argv + 1, argv + argc});
  } catch (const Exchange::UsageError& error) {
    std::cerr << "exchange-demo: " << error.what() << " (see --help)" << std::endl;
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "exchange-demo: " << error.what() << std::endl;
    return 1;
  }
}
