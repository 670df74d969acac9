#pragma once

#include <memory>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <vector>

#include "interrupt.hpp"
#include "transport/polled_writer.hpp"
#include "transport/progress.hpp"
#include "transport/ring_sender.hpp"
#include "transport/send_stream.hpp"

namespace tool {

// Sends streams over leases. A label belongs to a lease, so a stream gets another lease if its
// label differs from that of the last stream.
class LeasedSender {
 public:
  // Takes the first lease. A signal may end the process meanwhile, because nothing is sent yet.
  // Throws Failure.
  LeasedSender(std::string socket, orvane::Transport transport, const SendOptions& options,
               const std::string& label);

  // Sends all data of `read` as one stream, and waits for the receipt. Throws what sendStream()
  // throws, and Failure if there is no other lease in time.
  Sent send(const Reader& read, const std::string& label, Progress& progress, Interrupt& interrupt);

 private:
  void takeLease(unsigned int timeout, const std::string& label);
  void takeAnotherLease(const std::string& label, Interrupt& interrupt);

  const std::string socket;
  const orvane::Transport transport;
  const SendOptions options;
  std::string leasesLabel;
  std::vector<std::unique_ptr<orvane::Lease>> ending;  // by the server, too
  std::unique_ptr<orvane::Lease> lease;
  std::optional<RingSender> ring;  // over the lease, as the next one
  std::optional<PolledWriter> queue;
};

}  // namespace tool
