// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Exchange.h"

#include "Agent.h"
#include "Failure.h"

#include <optional>

namespace Exchange {
namespace {

// Returns the names of the items whose images from the peer differ from this side's; empty when none does.
std::string differences(const std::vector<Fingerprint>& own, const std::vector<ByteVector>& theirs) {
  std::string names;
  for (std::size_t index = 0; index < own.size(); ++index) {
    if (own[index].image != theirs[index]) {
      names += (names.empty() ? "" : ", ") + own[index].name;
    }
  }
  return names;
}

Message fingerprintMessage(const std::vector<Fingerprint>& fingerprints) {
  Message message = {MessageType::Fingerprints, {}};
  for (const Fingerprint& fingerprint : fingerprints) {
    message.fields.push_back(fingerprint.image);
  }
  return message;
}

// Compares with the responder. Returns what differs, as the side that noticed it reports it.
std::string compareAsInitiator(Link& link, const Agent& agent) {
  // Both are computed before anything is sent. After that only the responder can still refuse.
  const std::vector<Fingerprint> own = agent.fingerprints(Side::Initiator);
  const std::vector<Fingerprint> expected = agent.fingerprints(Side::Responder);
  link.send(fingerprintMessage(own));
  const Message theirs = link.receive(MessageType::Fingerprints, expected.size());
  const std::string verdict = textOf(link.receive(MessageType::Verdict, 1).fields[0]);
  const std::string found = differences(expected, theirs.fields);
  if (found == verdict) {
    return found.empty() ? "" : "both sides find that these differ: " + found;
  }
  return "the initiator finds that these differ: " + (found.empty() ? "none" : found) +
         "; the responder: " + (verdict.empty() ? "none" : verdict);
}

void exchangeAsInitiator(Link& link, const Group& group, Fault fault, ExchangeResult& result) {
  Agent agent(Side::Initiator, group, *result.suite);
  const Half& own = agent.own();
  link.send(
      {MessageType::Offer, {fieldOf(group.number), fieldOf(result.suite->prf), own.spi, own.publicValue, own.nonce}});
  const Message answer = link.receive(MessageType::Answer, 3);
  Half peer = {answer.fields[0], answer.fields[1], answer.fields[2]};
  if (fault == Fault::PublicValue && !peer.publicValue.empty()) {
    peer.publicValue.back() ^= 1U;
  }
  agent.complete(peer);
  if (fault == Fault::Key) {
    agent.damageKey(SK_ei);
  }
  result.publicBytes = own.publicValue.size();
  result.secretBytes = agent.secretBytes();
  result.keyBytes = totalKeyBytes(*result.suite);
  result.initMicroseconds = agent.initMicroseconds();
  result.agreementMicroseconds = agent.agreementMicroseconds();
  result.problem = compareAsInitiator(link, agent);
}

void exchangeAsResponder(Link& link, const Message& offer) {
  const Group* const group = findGroup(numberOf(offer.fields[0]));
  const Suite* const suite = findSuite(numberOf(offer.fields[1]));
  if (group == nullptr || suite == nullptr) {
    throw Failure("the responder does not know the group or the PRF offered");
  }
  Agent agent(Side::Responder, *group, *suite);
  agent.complete({offer.fields[2], offer.fields[3], offer.fields[4]});
  const Half& own = agent.own();
  link.send({MessageType::Answer, {own.spi, own.publicValue, own.nonce}});

  const std::vector<Fingerprint> expected = agent.fingerprints(Side::Initiator);
  const Message theirs = link.receive(MessageType::Fingerprints, expected.size());
  link.send(fingerprintMessage(agent.fingerprints(Side::Responder)));
  link.send({MessageType::Verdict, {fieldOf(differences(expected, theirs.fields))}});
}

}  // namespace

ExchangeResult initiate(Link& link, const Group& group, const Suite& suite, Fault fault) {
  ExchangeResult result;
  result.suite = &suite;
  try {
    exchangeAsInitiator(link, group, fault, result);
  } catch (const Refused& refusal) {
    result.problem = refusal.what();
  } catch (const Failure& failure) {
    result.problem = failure.what();
    link.send({MessageType::Refusal, {fieldOf(result.problem)}});
  }
  return result;
}

void respond(Link& link, Fault fault) {
  while (const std::optional<Message> offer = link.receiveAny()) {
    if (offer->type == MessageType::Refusal) {
      continue;  // the initiator failed before it could send an offer
    }
    if (offer->type != MessageType::Offer || offer->fields.size() != 5) {
      throw LinkFailure("the peer process sent a message other than the one expected");
    }
    if (fault == Fault::DeadPeer) {
      return;
    }
    if (fault == Fault::SilentPeer) {
      continue;
    }
    try {
      exchangeAsResponder(link, *offer);
    } catch (const Refused&) {
      // The initiator has reported the failure already. Its next offer may succeed.
    } catch (const Failure& failure) {
      link.send({MessageType::Refusal, {fieldOf(std::string(failure.what()))}});
    }
  }
}

}  // namespace Exchange
