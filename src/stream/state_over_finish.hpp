#pragma once

#include <optional>
#include <string>

#include "stream/state_over.hpp"

namespace orvane {

// How a stream ends: the close record, the server's answers and the receipt, each of which a later
// call may go on to wait for.

template <typename Sender>
std::optional<Receipt> Stream::StateOver<Sender>::finish(Wait wait) {
  const OneUser user(mark);
  requireOwnProcess();
  if (receipt) {
    return receipt;
  }
  if (failure) {
    throw StreamError(*failure);
  }
  receipt = finishBy(deadlineOf(wait));
  if (!receipt && wait == Wait::yes) {
    throw StreamError(kStatusTimedOut,
                      "Timed out after waiting " + std::to_string(seconds) +
                          "s for the receipt: the server is busy or was stopped; call finish() "
                          "again to wait longer",
                      Certainty::unknown);
  }
  return receipt;
}

template <typename Sender>
std::optional<Receipt> Stream::StateOver<Sender>::finishBy(const Deadline& deadline) {
  if (phase == Phase::writing) {
    if (!whileWriting([&] { return awaitRoom(0, deadline); })) {
      return std::nullopt;
    }
    sender.close();
    countSegment();
    phase = Phase::ending;
  }
  if (phase == Phase::ending && !handOverEnd(deadline)) {
    return std::nullopt;
  }
  phase = Phase::ended;
  const bool isAnswered = awaitAnswers(deadline);
  if (!awaitPacket(*lease, isAnswered ? deadline : Deadline::passed())) {
    return std::nullopt;
  }
  try {
    return takeReceipt(*lease, sent, isAnswered && sender.isAnsweredWell());
  } catch (const StreamError& e) {
    lose(e);
  }
}

// An error of the server is about an earlier batch, and was sent over the connection as well.
template <typename Sender>
bool Stream::StateOver<Sender>::handOverEnd(const Deadline& deadline) {
  try {
    return sender.flush(deadline);
  } catch (const Ox_ErrnoException&) {
    return true;
  }
}

// If the server has ended, the connection shows it, after everything that was sent before.
template <typename Sender>
bool Stream::StateOver<Sender>::awaitAnswers(const Deadline& deadline) {
  try {
    if (sender.awaitAnswers(deadline)) {
      return true;
    }
  } catch (const Ox_ErrnoException&) {
    return false;
  }
  if (watch) {
    watch->begin(sender.headAfterAnswer());
  }
  return false;
}

}  // namespace orvane
